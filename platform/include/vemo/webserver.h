#ifndef VEMO_WEBSERVER_H
#define VEMO_WEBSERVER_H
namespace vemow3 {
class Engine {  // the web server's configuration, read once
 public:
  Engine();
  ~Engine();
  Engine(const Engine &) = delete;
  Engine &operator=(const Engine &) = delete;

 private:
  friend class ZEM;
  struct State;
  State *state_;
};
class ZEM {  // the administration interface's view of it
 public:
  explicit ZEM(Engine &engine);
  int GetHttpPort() const;   // 5000 when nothing is configured
  int GetHttpsPort() const;  // 5001
 private:
  Engine &engine_;
};
}  // namespace vemow3
#endif
