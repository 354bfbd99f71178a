#ifndef VEMO_TASKMGR_H
#define VEMO_TASKMGR_H
#include <json/value.h>
#include <string>
namespace ZEM {
class Task {  // released with delete
 public:
  ~Task();
  bool saveData();  // writes data and flag; false: nothing changed on disk
  bool remove();    // true also when it is already gone
  Json::Value data;
  int flag = 0;  // 1: a document to keep (never reaped with finished tasks)
 private:
  friend class TaskMgr;
  Task(std::string user, std::string name);
  std::string user_, name_;
};
class TaskMgr {
 public:
  explicit TaskMgr(const char *user);
  ~TaskMgr();
  bool hasTask(const char *name);
  Task *getTask(const char *name);     // nullptr: none, or not readable
  Task *createTask(const char *name);  // an existing one is opened; nullptr: refused
 private:
  std::string user_;
};
}  // namespace ZEM
#endif
