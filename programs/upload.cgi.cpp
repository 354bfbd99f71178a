// upload.cgi: files into a share or a home, whole or in slices (docs/uploads.md).
//
//   POST ?path=/share/folder [&overwrite=yes] [&name=...]    multipart/form-data, files in the
//        field "file", several of them; the token as a header or in the query. "path" and the
//        others may stand beside the files instead: give "path" in the address where the share lies
//        on a volume of its own, and the file is received there, and never copied.
//        {"files": [{"name", "size"}]}
//   the same with Content-Range, and X-Tmp-File from the second slice on:
//        {"id": ... (first slice), "offset": where the next slice begins, "files": [...]}, with
//        files when the last one has come
//
// Names from the client are proposals: directories are dropped, and a name that may not be is
// refused. Nothing is replaced without "overwrite=yes". Refusals of slices name the "offset"
// that is expected, when there is one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/user.h>
#include <vemo/volume.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "programs/program.h"
#include "programs/share_place.h"

namespace {

using program::SharePlace;

constexpr char kSlicePrefix[] = "slice-";
constexpr size_t kSliceIdSize = 22;  // of a growing file's name: 128 random bits

struct Upload {
  SharePlace place;
  zem::Descriptor folder;
  Json::Value data = Json::Value(Json::objectValue);
};

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// --- Where to ---

// Finds the folder that takes the files. As root, or as the caller already.
const char* FindPlace(WebMan& request, Upload& upload) {
  return upload.place.Find(request.GetLoginUserName(), program::Field(request, "path"));
}

const char* OpenFolder(Upload& upload) {
  const char* error = upload.place.Enter();
  if (error != nullptr) return error;
  if (!upload.place.may_write()) return "error_no_right";
  upload.folder = upload.place.Open(O_RDONLY | O_DIRECTORY);
  return upload.folder ? nullptr : program::ErrorKeyOf(errno);
}

// The spool directory beside the destination, so that storing is a rename; "" when the
// destination is not known yet, or lies on no volume.
std::string SpoolFor(const Upload& upload) {
  VEMOVOLUME volume;
  if (!upload.folder || VolumePathParse(upload.place.root().c_str(), &volume) != 1) return "";
  return std::string(volume.path) + "/@tmp";
}

// --- Receiving ---

const char* ErrorOf(int result, int error) {
  switch (result) {
    case -2:
      return "error_no_space";
    case -12:
    case -13:
      return "error_no_volume";
    case -20:
      return "error_upload_broken";
    case -21:
      return "error_upload_gone";
    case -22:
      return "error_slice";
    default:
      return error == 0 ? "error_system" : program::ErrorKeyOf(error);
  }
}

bool IsLaterSlice(WebMan& request) {
  return request.IsSliceUploadRequest() && !Environment("HTTP_X_TMP_FILE").empty();
}

void AddOffset(WebMan& request, Json::Value& data) {
  const long long offset = request.GetUploadFileSize();
  if (request.IsSliceUploadRequest() && offset >= 0) {
    data["offset"] = static_cast<Json::Int64>(offset);
  }
}

const char* Receive(WebMan& request, Upload& upload) {
  const std::string spool = IsLaterSlice(request) ? "" : SpoolFor(upload);
  errno = 0;
  const int result = request.LoadIn(spool.empty() ? nullptr : spool.c_str());
  if (result < 0) {
    const char* error = ErrorOf(result, errno);
    AddOffset(request, upload.data);
    // What an unknown id would lead to is nobody's business: the client begins anew.
    const bool unknown = IsLaterSlice(request) && result == -9 && !upload.data.isMember("offset");
    return unknown ? "error_slice" : error;
  }
  const int parameters = request.LoadUploadParams(nullptr, nullptr);
  return parameters < 0 ? ErrorOf(parameters, 0) : nullptr;
}

// The first slice's growing file gets the id by which later ones find it: the random part of
// its own name, so that nothing else has to be kept. It is given before anything can be
// refused, or nobody could go on with what is there.
const char* GiveId(WebMan& request, Json::Value& data) {
  const char* path = request.GetSliceUploadTmpFile();
  const char* name = path == nullptr ? nullptr : std::strrchr(path, '/');
  if (name == nullptr || std::strncmp(name + 1, kSlicePrefix, sizeof kSlicePrefix - 1) != 0) {
    return nullptr;  // nothing grows
  }
  const std::string id = std::string(name + sizeof kSlicePrefix).substr(0, kSliceIdSize);
  if (!request.SaveSliceUploadTmpFile(id.c_str(), path)) return "error_system";
  data["id"] = id;
  setenv("HTTP_X_TMP_FILE", id.c_str(), 1);
  return nullptr;
}

// --- Storing ---

// Administrators work as root, and their files are theirs. By the file itself: what stands
// under its name may be somebody else's by now, and that is not root's.
void GiveToCaller(WebMan& request, int file, const struct stat& status) {
  VEMOUSER* user = nullptr;
  if (geteuid() != 0 || status.st_uid != 0 || !S_ISREG(status.st_mode)) return;
  if (VEMOUserGet(request.GetLoginUserName().c_str(), &user) != 0) return;
  if (fchownat(file, "", user->uid, user->gid, AT_EMPTY_PATH) != 0) {
    // It stays root's, which the caller works as too.
  }
  VEMOUserFree(user);
}

bool IsAmong(const Json::Value& files, const std::string& name) {
  for (const Json::Value& file : files) {
    if (file["name"].asString() == name) return true;
  }
  return false;
}

const char* StoreFile(WebMan& request, Upload& upload, bool& stored) {
  std::string name = program::Field(request, "name");
  if (name.empty()) name = program::Field(request, "file");
  const char* error = program::CheckNewName(upload.folder.get(), name);
  if (error != nullptr) return error;
  // One name is for one file.
  if (IsAmong(upload.data["files"], name)) return "error_request";
  // By the folder's descriptor: what stands under its name may be another one by now.
  const std::string path = "/proc/self/fd/" + std::to_string(upload.folder.get()) + "/" + name;
  VEMOUPLOADPROGRESS progress = {};
  if (program::Field(request, "overwrite") != "yes") progress.state = VEMOUPLOAD_NEW;
  const long long size = request.GetUploadFileSize();
  errno = 0;
  const int result = request.LoadUploadFile(path.c_str(), nullptr, &progress);
  if (result < 0) return ErrorOf(result, errno);
  stored = result > 0;
  if (!stored) return nullptr;
  Json::Value file(Json::objectValue);
  file["name"] = name;
  file["size"] = static_cast<Json::Int64>(size);
  upload.data["files"].append(file);
  const zem::Descriptor opened(
      openat(upload.folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (opened && fstat(opened.get(), &status) == 0) GiveToCaller(request, opened.get(), status);
  return nullptr;
}

const char* Store(WebMan& request, Upload& upload) {
  if (!upload.folder) {
    const char* error = FindPlace(request, upload);
    if (error == nullptr) error = OpenFolder(upload);
    if (error != nullptr) return error;
  }
  upload.data["files"] = Json::Value(Json::arrayValue);
  if (request.IsSliceUploadRequest() && !request.IsSliceUploadFinish()) return nullptr;
  bool stored = true;
  while (stored && request.GetUploadFileSize() >= 0) {
    const char* error = StoreFile(request, upload, stored);
    if (error != nullptr) return error;
  }
  if (upload.data["files"].empty()) return "error_request";
  if (request.IsSliceUploadRequest()) {
    request.DeleteSliceUploadTmpFile();
    upload.data.removeMember("id");
    upload.data.removeMember("offset");
  }
  return nullptr;
}

const char* Run(WebMan& request, Upload& upload) {
  if (!request.IsUploadRequest() || !program::IsPost()) return "error_request";
  // A place that is told in the address is looked at before anything is received.
  const bool known = !program::Field(request, "path").empty();
  if (known) {
    const char* error = FindPlace(request, upload);
    if (error != nullptr) return error;
  }
  if (request.setEUGID() < 0) return "error_system";
  if (known) {
    const char* error = OpenFolder(upload);
    if (error != nullptr) return error;
  }
  const bool first = request.IsSliceUploadRequest() && !IsLaterSlice(request);
  const char* error = Receive(request, upload);
  if (error == nullptr && first) error = GiveId(request, upload.data);
  if (error != nullptr) return error;
  AddOffset(request, upload.data);
  error = Store(request, upload);
  // A whole file that could not be moved is ended by its last byte, sent once more.
  if (error != nullptr && request.IsSliceUploadFinish() && upload.data.isMember("offset")) {
    upload.data["offset"] = upload.data["offset"].asInt64() - 1;
  }
  return error;
}

}  // namespace

int main() {
  // Of an upload the parameters are those of the address; the body is read below.
  WebMan request(true);
  umask(022);
  program::QueuePrivateHeaders(request);
  if (!request.IsAuthorized(nullptr, VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP)) return 0;
  Upload upload;
  const char* error = Run(request, upload);
  if (error == nullptr) {
    program::AnswerSuccess(request, upload.data);
  } else {
    // Those before the one that was refused are stored.
    if (upload.data["files"].empty()) upload.data.removeMember("files");
    program::AnswerFailure(request, "common", error, upload.data);
  }
  return 0;
}
