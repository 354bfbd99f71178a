#include "programs/refusal.h"

#include <fcntl.h>
#include <file_share/file_accessor.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vemo/acl.h>
#include <vemo/core.h>
#include <vemo/share.h>
#include <vemo/user.h>

#include <memory>

#include "programs/share_place.h"

namespace program {
namespace {

void Add(Json::Value& answer, const char* level, const char* key, const std::string& value) {
  Json::Value reason(Json::objectValue);
  reason["level"] = level;
  reason[key] = value;
  answer["why"].append(reason);
}

// Whether entries for single users and groups decide, or the mode alone.
const char* LevelOf(const std::string& file) {
  return getxattr(file.c_str(), "system.posix_acl_access", nullptr, 0) > 0 ? "acl" : "mode";
}

void ExplainShare(const std::string& user, const SharePlace& place, Json::Value& answer) {
  VEMOSHARE* found = nullptr;
  if (place.is_home() || VEMOShareGet(place.share().c_str(), &found) != 0) return;
  const std::unique_ptr<VEMOSHARE, void (*)(VEMOSHARE*)> share(found, VEMOShareFree);
  char setting[32] = "";
  const int privilege =
      VEMOShareUserPrivReasonGet(user.c_str(), share.get(), setting, sizeof setting);
  if (privilege != VEMOSHARE_PRIV_RW) Add(answer, "share", "setting", setting);
  if (VLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1) return;
  if ((share->restrictions & VEMOSHARE_NO_LIST) != 0) Add(answer, "restriction", "what", "list");
  if ((share->restrictions & VEMOSHARE_NO_DOWNLOAD) != 0) {
    Add(answer, "restriction", "what", "download");
  }
}

// The first folder on the way that cannot be entered; "" when all can.
std::string BlockedAt(const std::string& root, const std::string& real) {
  for (size_t end = root.size(); end != std::string::npos && end < real.size();
       end = real.find('/', end + 1)) {
    const std::string folder = real.substr(0, end);
    if (faccessat(AT_FDCWD, folder.c_str(), X_OK, AT_EACCESS) != 0 && errno == EACCES)
      return folder;
  }
  return "";
}

bool IsReadOnly(const std::string& file) {
  struct statvfs status;
  return statvfs(file.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

void ExplainFile(const SharePlace& place, Json::Value& answer) {
  const std::string real = place.real();
  const std::string blocked = BlockedAt(place.root(), real);
  if (!blocked.empty()) Add(answer, "path", "at", blocked);
  const VEMOPrivilege::FileAccessor accessor;
  const int mask = accessor.GetACLPrivilege(real);
  const bool read_only = IsReadOnly(real);
  if (read_only) Add(answer, "file system", "state", "read-only");
  static constexpr struct {
    int bit;
    const char* name;
  } kRights[] = {{VEMOACL_READ, "read"}, {VEMOACL_WRITE, "write"}, {VEMOACL_DELETE, "delete"}};
  for (const auto& right : kRights) {
    const bool has = (mask & right.bit) != 0 && blocked.empty();
    answer["may"][right.name] = has;
    if (has || !blocked.empty() || (read_only && right.bit != VEMOACL_READ)) continue;
    const bool of_parent = right.bit == VEMOACL_DELETE;
    const std::string at = of_parent ? real.substr(0, real.rfind('/')) : real;
    Add(answer, LevelOf(at), "missing", right.name);
    answer["why"][answer["why"].size() - 1]["at"] = at;
  }
}

}  // namespace

const char* ExplainRights(const std::string& user, const std::string& path, Json::Value& answer) {
  VEMOUSER* account = nullptr;
  if (VEMOUserGet(user.c_str(), &account) != 0) return "error_no_user";
  const std::string name = account->name;
  VEMOUserFree(account);

  SharePlace place;
  const char* error = place.Find(name, path);
  answer["user"] = name;
  answer["path"] = path;
  answer["why"] = Json::Value(Json::arrayValue);
  for (const char* right : {"list", "read", "write", "delete"})
    answer["may"][right] = false;
  // A share that one may not enter is found, for the reason.
  if (error != nullptr && (std::string(error) != "error_not_found" || place.share().empty()))
    return error;
  ExplainShare(name, place, answer);
  if (error != nullptr) return answer["why"].empty() ? error : nullptr;

  const bool may_list = place.may_list(), may_download = place.may_download();
  if (VEMOPrivilege::PrivilegeUtil::SetEUGID(name, true) != 1) return "error_system";
  ExplainFile(place, answer);
  Json::Value& may = answer["may"];
  const bool readable = may["read"].asBool();
  may["list"] = readable && may_list;
  may["read"] = readable && may_download;
  if (!place.may_write()) may["write"] = may["delete"] = false;
  return nullptr;
}

}  // namespace program
