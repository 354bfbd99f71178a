/*
 * vemo/webserver.h - the web server's ports. C++ only.
 */
#ifndef VEMO_WEBSERVER_H
#define VEMO_WEBSERVER_H

#include <vemo/types.h>

VEMO_VISIBLE_BEGIN

namespace vemow3 {

/// The web server's configuration. Making one opens nothing; it is read once a process, when
/// something is asked.
class Engine {
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

/// The administration interface's view of the configuration, which must outlive it.
class ZEM {
 public:
  explicit ZEM(Engine &engine);

  /// The port for HTTP; 5000 when nothing is configured.
  int GetHttpPort() const;
  /// The port for HTTPS; 5001 when nothing is configured.
  int GetHttpsPort() const;

 private:
  Engine &engine_;
};

}  // namespace vemow3

VEMO_VISIBLE_END
#endif
