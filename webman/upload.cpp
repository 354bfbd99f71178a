// The request object: uploads, whole and in slices.

#include <sys/stat.h>
#include <unistd.h>
#include <vemo/fs.h>
#include <vemo/share.h>
#include <vemo/volume.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/effective_user.h"
#include "common/log.h"
#include "webman/names.h"
#include "webman/webman.h"

namespace {

constexpr char kRegistry[] = "/tmp/slice_file_id";
constexpr char kIdVariable[] = "HTTP_X_TMP_FILE";
constexpr char kFileVariable[] = "VEMO_SLICE_TMP_FILE";
constexpr int kRecordPathSize = 4095;
constexpr int kPathSize = 4096;
constexpr unsigned long long kRoomKiB = 1024;

// What the platform's reasons say, the most hopeful first.
int ErrorOfReasons(int reasons) {
  if ((reasons & VEMOVOLUME_FULL) != 0) return VEMOERR_VOLUME_FULL;
  if ((reasons & VEMOVOLUME_UNUSABLE) != 0) return VEMOERR_VOLUME_UNUSABLE;
  return VEMOERR_NO_VOLUME;
}

int ResultOfError(int error) {
  switch (error) {
    case VEMOERR_NO_VOLUME:
      return -13;
    case VEMOERR_VOLUME_UNUSABLE:
      return -12;
    case VEMOERR_VOLUME_FULL:
      return -2;
    default:
      return -9;
  }
}

// The path of an id's record. False when it would be cut: a cut name is another id's.
bool RecordPath(const char* id, char (&path)[kRecordPathSize]) {
  const int length = std::snprintf(path, sizeof path, "%s/%s", kRegistry, id);
  return length > 0 && length < kRecordPathSize;
}

// Whether the path names itself: neither a link, nor ".." or "/" in the id, lead away.
bool ResolvesToItself(const char* path) {
  char resolved[PATH_MAX];
  return realpath(path, resolved) != nullptr && std::strcmp(resolved, path) == 0;
}

// The registry stands where everybody may make files. One that somebody else has made could
// name any file of the system as a growing one.
bool RegistryIsOurs() {
  struct stat status;
  return lstat(kRegistry, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == 0;
}

bool RecordIsOurs(const char* path) {
  struct stat status;
  return lstat(path, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == 0;
}

bool IsFileName(const char* id) {
  return *id != '\0' && std::strchr(id, '/') == nullptr && std::strcmp(id, ".") != 0 &&
         std::strcmp(id, "..") != 0;
}

// Exports the recorded path of the growing file to the framework.
bool ExportRecordedFile() {
  const char* id = std::getenv(kIdVariable);
  if (id == nullptr || std::strchr(id, '=') != nullptr) return false;

  char path[kRecordPathSize];
  const zem::EffectiveUser root(0);
  if (!RecordPath(id, path) || !RegistryIsOurs() || !ResolvesToItself(path)) return false;
  if (!VLIBCFileExist(path) || !RecordIsOurs(path)) return false;

  char file[kPathSize];
  if (VLIBCFileGetKeyValue(path, id, file, sizeof file) < 1 || *file == '\0') return false;
  return setenv(kFileVariable, file, 1) == 0;
}

}  // namespace

bool WebMan::IsSliceUploadRequest() { return VemoCgiIsSliceUploadRequest(&context_) == 1; }

bool WebMan::IsSliceUploadFinish() {
  return IsSliceUploadRequest() && VemoCgiIsSliceUploadFinish(&context_) == 1;
}

bool WebMan::FindUploadTmpPath(char* path, int size, unsigned long long needed) {
  if (path == nullptr || size <= 0) return false;

  VEMOVOLUME volume;
  int reasons = -1;
  const int found = VolumeAvailGet(needed, &volume, &reasons, 1);
  if (found < 0) {
    ZEM_LOG("%s:%d VolumeAvailGet() failed!! vemoerr=[0x%04X]", zem::kWebmanSource,
            static_cast<unsigned int>(VLIBCErrGet()));
    return false;
  }
  if (found == 0) {
    VLIBCErrSetEx(ErrorOfReasons(reasons), __FILE__, __LINE__);
    return false;
  }

  char directory[kPathSize];
  if (VEMOShareBinPathGet(volume.path, directory, sizeof directory) < 0) {
    ZEM_LOG("%s:%d Fail to get share bin path from [%s]", zem::kWebmanSource, volume.path);
    VLIBCErrSetEx(VEMOERR_NO_VOLUME, __FILE__, __LINE__);
    return false;
  }
  std::snprintf(path, static_cast<size_t>(size), "%s/@tmp", directory);
  return true;
}

int WebMan::LoadIn(const char* directory) {
  char found[kPathSize];
  const char* path = directory;
  if (path == nullptr && IsSliceUploadRequest()) path = GetSliceUploadTmpFile();
  if (path == nullptr) {
    if (!FindUploadTmpPath(found, sizeof found, kRoomKiB)) {
      const int result = ResultOfError(VLIBCErrGet());
      ZEM_LOG("%s(%d)no path for upload", zem::kWebmanSource);
      return result;
    }
    path = found;
  }

  const int result = VemoCgiLoadUploadData(&context_, path, 0);
  if (result < 0) ZEM_LOG("%s(%d)failed to upload to path %s", zem::kWebmanSource, path);
  return result;
}

bool WebMan::SaveSliceUploadTmpFile(const char* sliceId, const char* tmpPath) {
  if (sliceId == nullptr || tmpPath == nullptr || !IsFileName(sliceId)) return false;

  char path[kRecordPathSize];
  const zem::EffectiveUser root(0);
  if (!VLIBCFileExist(kRegistry) && VEMOFSMkdirP(kRegistry, 0, 0, 0, 0, 0777) < 0) {
    ZEM_LOG("%s:%d Failed to mkdir %s, %s", zem::kWebmanSource, kRegistry, std::strerror(errno));
    return false;
  }
  if (!RegistryIsOurs()) {
    ZEM_LOG("%s:%d %s is not root's", zem::kWebmanSource, kRegistry);
    return false;
  }
  if (!RecordPath(sliceId, path) || VLIBCFileSetKeyValue(path, sliceId, tmpPath) < 0) return false;
  if (chmod(path, 0600) != 0) ZEM_LOG("%s:%d chmod failed.", zem::kWebmanSource);
  return true;
}

bool WebMan::DeleteSliceUploadTmpFile() {
  const char* id = std::getenv(kIdVariable);
  if (id == nullptr) return false;

  char path[kRecordPathSize];
  const zem::EffectiveUser root(0);
  if (!RecordPath(id, path) || !RegistryIsOurs() || !ResolvesToItself(path)) return false;
  if (VLIBCFileExist(path) && unlink(path) != 0) {
    ZEM_LOG("%s:%d unlink failed.", zem::kWebmanSource);
    return false;
  }
  return true;
}

const char* WebMan::GetSliceUploadTmpFile() {
  const char* known = VemoCgiSliceUploadTmpFile();
  if (known != nullptr) return known;
  return ExportRecordedFile() ? VemoCgiSliceUploadTmpFile() : nullptr;
}

int WebMan::LoadUploadParams(VEMOUPLOADCALLBACK callback, VEMOUPLOADPROGRESS* progress) {
  return VemoCgiLoadUploadParams(&context_, callback, progress);
}

int WebMan::LoadUploadFile(const char* dest, VEMOUPLOADCALLBACK callback,
                           VEMOUPLOADPROGRESS* progress) {
  return VemoCgiLoadUploadFile(&context_, dest, callback, progress);
}

int WebMan::LoadUploadFileBW(const char* dest, VEMOUPLOADCALLBACK callback,
                             VEMOUPLOADPROGRESS* progress, const char* limit) {
  return VemoCgiLoadUploadFileBW(&context_, dest, callback, progress, limit);
}

int WebMan::LoadUploadFileNoTruncate(const char* dest, VEMOUPLOADCALLBACK callback,
                                     VEMOUPLOADPROGRESS* progress, VEMOUPLOADKEEP keep) {
  return VemoCgiLoadUploadFileNoTruncate(&context_, dest, callback, progress, keep);
}

long long WebMan::GetUploadFileSize() { return VemoCgiGetUploadFileSize(&context_); }

bool WebMan::RecvHup() { return VemoCgiRecvHup(&context_) == 1; }
