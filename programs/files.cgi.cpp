// files.cgi: files in shares and homes, for a file manager.
//
//   GET  action=list                       the shares that the caller may enter: [{"name", "path",
//                                          "writable", "list", "download", "encrypted"}]
//   GET  action=list   path=/share/folder  [folders=yes]
//                      [sort=name|size|mtime|type] [order=desc] [offset=N] [limit=N]
//                                          a page of its entries; with "folders" all folders
//                                          in it, with mounts, for a tree
//   GET  action=get    path=...            one entry, and what the caller may do with it
//   GET  action=get    path=... why=yes user=NAME    for administrators: what an account may
//                                          do, and what takes the rest away
//   GET  action=load   path=...            the file's bytes, with one range and an ETag
//   POST action=create path=...            a new folder
//   POST action=rename path=... name=...   another name in the same folder; never over one
//   POST action=delete path=... [recursive=yes]
//
// POST carries the anti-forgery token. A path is "/share/folder/file" or "/home/file"; it is
// taken as it stands: no "..", no doubled slash, nothing decoded twice. Everything is done as
// the caller, administrators as root, by descriptors below the share's root: links are shown,
// and lead nowhere.
#include <fcntl.h>
#include <file_share/file_accessor.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vemo/acl.h>
#include <vemo/core.h>
#include <vemo/errors.h>
#include <vemo/share.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "programs/actions.h"
#include "programs/download.h"
#include "programs/folder_listing.h"
#include "programs/folder_removal.h"
#include "programs/program.h"
#include "programs/refusal.h"
#include "programs/share_place.h"

namespace {

using program::ErrorKeyOf;
using program::Outcome;
using program::SharePlace;

constexpr long kPageLimit = 10000;

// A whole number from 0 on. \return false for anything else.
bool NumberOf(WebMan& request, const char* name, long otherwise, long& number) {
  const Json::Value* document = request.In();
  if (document != nullptr && document->isObject()) {
    const Json::Value member = document->get(name, Json::Value());
    if (member.isInt()) number = member.asInt();
    if (member.isInt()) return number >= 0;
    if (!member.isNull() && !member.isString()) return false;
  }
  const std::string text = program::Field(request, name);
  if (text.empty()) {
    number = otherwise;
    return true;
  }
  if (text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  number = std::stol(text);
  return true;
}

// Goes to the place that the request names, as the caller.
const char* GoTo(WebMan& request, SharePlace& place) {
  const char* error = place.Find(request.GetLoginUserName(), program::Field(request, "path"));
  if (error != nullptr) return error;
  if (request.setEUGID() < 0) return "error_system";
  return place.Enter();
}

// --- Shares ---

void AddShare(const std::string& user, const std::string& name, Json::Value& list) {
  SharePlace place;
  if (place.Find(user, "/" + name) != nullptr) return;
  // A home that was never made is not shown.
  if (place.is_home() && access(place.root().c_str(), F_OK) != 0) return;
  Json::Value share(Json::objectValue);
  bool encrypted = false;
  WebmanFileShare::IsEncryptShare(name, encrypted);
  share["name"] = name;
  share["path"] = "/" + name;
  share["writable"] = place.may_write();
  share["list"] = place.may_list();
  share["download"] = place.may_download();
  share["encrypted"] = encrypted;
  list.append(share);
}

Outcome ListShares(WebMan& request) {
  const std::string user = request.GetLoginUserName();
  Outcome outcome;
  outcome.data = Json::Value(Json::arrayValue);
  AddShare(user, "home", outcome.data);
  VEMOSZLIST* found = nullptr;
  const int count = VEMOShareEnum(&found);
  const std::unique_ptr<VEMOSZLIST, void (*)(VEMOSZLIST*)> names(found, VLIBCSzListFree);
  if (count < 0 && VLIBCErrGet() != VEMOERR_NOT_FOUND) return {"error_system"};
  for (int i = 0; i < count; i++)
    AddShare(user, VLIBCSzListGet(names.get(), i), outcome.data);
  return outcome;
}

// --- Looking ---

Outcome List(WebMan& request) {
  if (program::Field(request, "path").empty()) return ListShares(request);
  program::ListingOrder order;
  const std::string by = program::Field(request, "sort");
  if (!by.empty()) order.by = by;
  order.descending = program::Field(request, "order") == "desc";
  if ((order.by != "name" && order.by != "size" && order.by != "mtime" && order.by != "type") ||
      !NumberOf(request, "offset", 0, order.offset) ||
      !NumberOf(request, "limit", 1000, order.limit) || order.limit > kPageLimit) {
    return {"error_request"};
  }
  SharePlace place;
  const char* error = GoTo(request, place);
  if (error != nullptr) return {error};
  if (!place.may_list()) return {"error_no_right"};
  Outcome outcome;
  const bool done = program::Field(request, "folders") == "yes"
                        ? program::ListFolders(place, outcome.data)
                        : program::ListFolder(place, order, outcome.data);
  return done ? outcome : Outcome{ErrorKeyOf(errno)};
}

Outcome Explain(WebMan& request) {
  if (!request.IsAdmin()) return {"error_no_right"};
  Outcome outcome;
  const std::string user = program::Field(request, "user");
  outcome.error = program::ExplainRights(user.empty() ? request.GetLoginUserName() : user,
                                         program::Field(request, "path"), outcome.data);
  return outcome;
}

// The path of what was opened, whatever stands under its name by now.
std::string PathOf(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

void AddRights(const SharePlace& place, int file, Json::Value& may) {
  const VEMOPrivilege::FileAccessor accessor;
  struct stat status;
  // A link leads nowhere, so there is nothing to be read behind it.
  const bool is_link = fstat(file, &status) == 0 && S_ISLNK(status.st_mode);
  const int mask = is_link ? 0 : accessor.GetACLPrivilege(PathOf(file));
  may["read"] = (mask & VEMOACL_READ) != 0 && place.may_download();
  may["write"] = (mask & VEMOACL_WRITE) != 0 && place.may_write();
  may["delete"] = false;
  if (place.is_root() || !place.may_write()) return;
  // That is a right in the folder where it stands.
  const zem::Descriptor folder = place.OpenParent();
  if (!folder) return;
  const int there = accessor.GetACLPrivilege(PathOf(folder.get()) + "/" + place.name());
  may["delete"] = (there & VEMOACL_DELETE) != 0;
}

Outcome Get(WebMan& request) {
  if (program::Field(request, "why") == "yes") return Explain(request);
  SharePlace place;
  const char* error = GoTo(request, place);
  if (error != nullptr) return {error};
  // Whoever may not list a folder is not told what is in it.
  if (!place.may_list()) return {"error_no_right"};
  struct stat status;
  const zem::Descriptor file = place.Open(O_PATH);
  if (!file || fstat(file.get(), &status) != 0) return {ErrorKeyOf(errno)};
  // What a listing hides is not there for those who know its name either.
  if (place.hides_unreadable() &&
      faccessat(AT_FDCWD, PathOf(file.get()).c_str(), R_OK, AT_EACCESS) != 0) {
    return {"error_not_found"};
  }
  Outcome outcome;
  outcome.data = program::DescribeEntry(place.name(), status);
  AddRights(place, file.get(), outcome.data["may"]);
  return outcome;
}

// What the list of the library refuses is refused; where a file system knows no lists, the
// real open(2) decides.
bool IsRefusedByList(int file, int rights) {
  VLIBCErrSetEx(VEMOERR_NONE, "", 0);
  return !VEMOPrivilege::FileAccessor().ACLAccess(PathOf(file), rights) &&
         VLIBCErrGet() == VEMOERR_NO_PERM;
}

Outcome Load(WebMan& request) {
  SharePlace place;
  const char* error = GoTo(request, place);
  if (error != nullptr) return {error};
  if (!place.may_download()) return {"error_no_right"};
  const zem::Descriptor found = place.Open(O_PATH);
  if (!found) return {ErrorKeyOf(errno)};
  if (IsRefusedByList(found.get(), VEMOACL_READ)) return {"error_no_right"};
  const zem::Descriptor file = place.Open(O_RDONLY | O_NONBLOCK | O_NOCTTY);
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) return {ErrorKeyOf(errno)};
  if (!S_ISREG(status.st_mode)) return {"error_no_file"};
  program::SendFile(request, file.get(), place.name());
  Outcome outcome;
  outcome.answered = true;
  return outcome;
}

// --- Changing ---

// Goes to a place that the caller may change, and opens the folder in which it stands.
const char* GoToChange(WebMan& request, SharePlace& place, zem::Descriptor& folder) {
  const char* error = GoTo(request, place);
  if (error != nullptr) return error;
  if (place.is_root() || !place.may_write()) return "error_no_right";
  folder = place.OpenParent();
  return folder ? nullptr : ErrorKeyOf(errno);
}

Outcome Create(WebMan& request) {
  SharePlace place;
  zem::Descriptor folder;
  const char* error = GoToChange(request, place, folder);
  if (error == nullptr) error = program::CheckNewName(folder.get(), place.name());
  if (error != nullptr) return {error};
  if (mkdirat(folder.get(), place.name().c_str(), 0777) != 0) return {ErrorKeyOf(errno)};
  return {};
}

Outcome Rename(WebMan& request) {
  const std::string name = program::Field(request, "name");
  SharePlace place;
  zem::Descriptor folder;
  const char* error = GoToChange(request, place, folder);
  if (error == nullptr) error = program::CheckNewName(folder.get(), name);
  if (error != nullptr) return {error};
  if (renameat2(folder.get(), place.name().c_str(), folder.get(), name.c_str(), RENAME_NOREPLACE) !=
      0) {
    return {ErrorKeyOf(errno)};
  }
  return {};
}

Outcome Delete(WebMan& request) {
  SharePlace place;
  zem::Descriptor folder;
  const char* error = GoToChange(request, place, folder);
  if (error != nullptr) return {error};
  const bool whole = program::Field(request, "recursive") == "yes";
  Outcome outcome;
  int removed = 0;
  if (!program::RemoveEntry(folder.get(), place.name(), whole, removed)) {
    outcome.error = ErrorKeyOf(errno);
  }
  outcome.data["removed"] = removed;
  return outcome;
}

constexpr program::Action kActions[] = {
    {"list", VEMOCGI_PRIV_USER, false, List},    {"get", VEMOCGI_PRIV_USER, false, Get},
    {"load", VEMOCGI_PRIV_USER, false, Load},    {"create", VEMOCGI_PRIV_USER, true, Create},
    {"rename", VEMOCGI_PRIV_USER, true, Rename}, {"delete", VEMOCGI_PRIV_USER, true, Delete},
};

}  // namespace

int main() {
  WebMan request(true);
  // New folders are the caller's, and not everybody's to write, but for what a folder's own
  // list of defaults says.
  umask(022);
  program::Serve(request, kActions);
  return 0;
}
