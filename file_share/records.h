/// \file records.h
/// The platform's records of users and shares, released at the end of their scope.
#ifndef ZEM_FILE_SHARE_RECORDS_H
#define ZEM_FILE_SHARE_RECORDS_H

#include <vemo/share.h>
#include <vemo/user.h>

#include <memory>

namespace zem {

using User = std::unique_ptr<VEMOUSER, void (*)(VEMOUSER*)>;
using Share = std::unique_ptr<VEMOSHARE, void (*)(VEMOSHARE*)>;
using Text = std::unique_ptr<char, void (*)(void*)>;  ///< allocated with malloc()

/// Null when there is none.
inline User FindUser(const char* name) {
  VEMOUSER* record = nullptr;
  if (VEMOUserGet(name, &record) != 0) record = nullptr;
  return {record, VEMOUserFree};
}

/// The same of a share.
inline Share FindShare(const char* name) {
  VEMOSHARE* record = nullptr;
  if (VEMOShareGet(name, &record) != 0) record = nullptr;
  return {record, VEMOShareFree};
}

}  // namespace zem

#endif  // ZEM_FILE_SHARE_RECORDS_H
