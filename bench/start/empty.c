/* The answer that costs least. */
#include <unistd.h>

int main(void) {
  static const char answer[] = "Content-type: text/plain\r\n\r\n{}\n";

  return write(1, answer, sizeof answer - 1) < 0;
}
