// Reads a JSON document and answers with it.
#include <webman/webman.h>

int main() {
  WebMan request(true);
  Json::Value answer(Json::objectValue);
  if (request.In() != nullptr) answer["data"] = *request.In();
  answer["success"] = true;
  request.WriteHeader("text/plain; charset=\"UTF-8\"");
  request.WriteBody(answer);
}
