/*
 * vemo/taskmgr.h - documents and tasks of users, one a name. C++ only. No exception leaves it.
 */
#ifndef VEMO_TASKMGR_H
#define VEMO_TASKMGR_H

#include <json/value.h>
#include <vemo/types.h>

#include <string>
#include <vector>

VEMO_VISIBLE_BEGIN

namespace ZEM {

/// One document. Made by TaskMgr; released by the caller with delete.
class Task {
 public:
  ~Task();

  /// Writes `data` and `flag`. \return false when it failed, with nothing changed on disk.
  bool saveData();
  /// Removes the document. \return true also when it is gone already.
  bool remove();

  Json::Value data;
  int flag = 0;  ///< 1: a document to keep; 0: the progress of a task

 private:
  friend class TaskMgr;
  Task(std::string user, std::string name);
  std::string user_, name_;
};

/// The documents of one user.
class TaskMgr {
 public:
  explicit TaskMgr(const char *user);
  ~TaskMgr();

  bool hasTask(const char *name);
  /// \return null: there is none, or it cannot be read. The caller deletes it.
  Task *getTask(const char *name);
  /// Opens one that is there, else a new one. \return null: refused. The caller deletes it.
  Task *createTask(const char *name);
  /// The names of all documents, sorted bytewise.
  std::vector<std::string> taskNames();

 private:
  std::string user_;
};

}  // namespace ZEM

VEMO_VISIBLE_END
#endif
