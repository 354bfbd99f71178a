// The same as a C++ program, with the library that every such program loads.
#include <cstdio>
#include <string>

int main() {
  const std::string answer = "Content-type: text/plain\r\n\r\n{}\n";
  std::fwrite(answer.data(), 1, answer.size(), stdout);
}
