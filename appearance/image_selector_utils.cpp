#include "appearance/image_selector_utils.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/user.h>
#include <webutils/json_store.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "appearance/names.h"
#include "common/effective_user.h"
#include "common/log.h"
#include "common/number.h"

namespace {

constexpr const char* kExtensions[] = {".jpg", ".jpeg", ".jpe", ".bmp", ".gif", ".png"};
constexpr char kAnimated[] = ".gif";

constexpr off_t kKeptSize = 1 << 20;          // bytes, CheckFileSize
constexpr off_t kUncompressedSize = 2 << 20;  // bytes, IsImageNeededCompress
constexpr size_t kPathSize = 4097;
constexpr size_t kCompressedPathSize = 256;
constexpr size_t kKeySize = 64;
constexpr int kPreferencePathSize = 4096;
constexpr int kLoginEdge = 160;
constexpr int kDesktopEdge = 120;

constexpr char kImageName[] = "%s/%s%d%s";
constexpr char kThumbName[] = "%s/%s%dthumb%s";
constexpr char kLoginKey[] = "login_%s_index";
constexpr char kSharingKey[] = "fbsharing_login_%s_index";

// The slot after this one. Stored slots may be any number: only the ring counts.
int NextSlot(int last) { return static_cast<int>((static_cast<unsigned>(last) + 1) % 8); }

// Formats a path that is used only as a whole: a cut one names another file.
template <typename... Values>
bool FormatWhole(char* path, size_t size, const char* format, Values... values) {
  const int length = std::snprintf(path, size, format, values...);
  return length >= 0 && static_cast<size_t>(length) < size;
}

bool StatImage(const char* path, struct stat* status) {
  if (path == nullptr) path = "";
  if (stat(path, status) == 0) return true;
  ZEM_LOG("%s:%d stat %s failed. (%s)", zem::kImageSource, path, std::strerror(errno));
  return false;
}

// Runs the image tool; `arguments` end with null, the first is the tool itself.
bool RunImageTool(const char* const arguments[]) {
  // As with execv(), the array is not const for history's sake alone.
  return VLIBCExecv(zem::kImageTool, const_cast<char* const*>(arguments)) == 0;
}

// The tool's report lists a picture's channels under their depths; the statistics that follow
// name an alpha channel in other places, and do not count.
bool ReportsAlpha(FILE* report) {
  char* line = nullptr;
  size_t room = 0;
  bool in_depths = false, alpha = false;
  while (!alpha && getline(&line, &room, report) >= 0) {
    if (std::strstr(line, "Channel statistics:") != nullptr) break;
    if (std::strstr(line, "Channel depth:") != nullptr) in_depths = true;
    alpha = in_depths && std::strstr(line, "alpha:") != nullptr;
  }
  std::free(line);
  return alpha;
}

bool Compress(const char* copy, const char* compressed) {
  const char* const arguments[] = {zem::kImageTool, copy, compressed, nullptr};
  if (RunImageTool(arguments)) return true;
  ZEM_LOG("%s:%d Fail to execute %s, %s %s", zem::kImageSource, zem::kImageTool, copy, compressed);
  return false;
}

void MakeThumbnail(const char* image, const char* thumb, int edge) {
  char geometry[32];
  std::snprintf(geometry, sizeof geometry, "%dx%d", edge, edge);
  const char* const arguments[] = {zem::kImageTool,    "-size",    geometry, "-thumbnail",
                                   geometry,           "-quality", "90",     "-unsharp",
                                   "0.5x0.5+1.25+0.0", image,      thumb,    nullptr};
  if (RunImageTool(arguments)) return;
  ZEM_LOG("%s:%d Fail to execute %s, %s %s", zem::kImageSource, zem::kImageTool, image, thumb);
}

bool MakeDirectory(const char* directory) {
  struct stat status;
  if (stat(directory, &status) == 0 || mkdir(directory, 0755) == 0) return true;
  ZEM_LOG("%s:%d Failed to mkdir %s, %s", zem::kImageSource, directory, std::strerror(errno));
  return false;
}

bool CopyImage(const char* source, const char* image) {
  // The tool's own failures pass, as callers know: a copy that was cut for want of room
  // counts as made.
  if (VLIBCExec(zem::kCopyTool, "-f", source, image, static_cast<char*>(nullptr)) < 0) {
    return false;
  }
  if (chmod(image, 0644) == 0) return true;
  ZEM_LOG("%s:%d Failed to chmod, %s", zem::kImageSource, std::strerror(errno));
  return false;
}

int GetIndexKey(const char* format, const char* type) {
  if (type == nullptr) return 0;
  char key[kKeySize], value[kKeySize];
  std::snprintf(key, sizeof key, format, type);
  if (VLIBCFileGetKeyValue(zem::kSettingsFile, key, value, sizeof value) < 1) return 0;
  return zem::ClampedInt(value);
}

bool SetIndexKey(const char* format, const char* type, int slot) {
  if (type == nullptr) {
    ZEM_LOG("%s:%d Wrong type.", zem::kImageSource);
    return false;
  }
  char key[kKeySize], value[kKeySize];
  std::snprintf(key, sizeof key, format, type);
  std::snprintf(value, sizeof value, "%d", slot < 0 ? 0 : slot & 7);
  return VLIBCINFOSetKeyValue(key, value) >= 0;
}

// The directory of the user's pictures; false, logged, when there is none.
bool DesktopDirectory(const std::string& user, char* directory) {
  if (user.empty()) {
    ZEM_LOG("%s:%d Bad parameter", zem::kImageSource);
    return false;
  }
  // Stricter than the load of the settings, which minds negative results only.
  if (VEMOUserPreferenceDirGet(user.c_str(), directory, kPreferencePathSize) == 0) return true;
  ZEM_LOG("%s:%d Get preference directory failed", zem::kImageSource);
  return false;
}

const Json::Value* MemberOf(const Json::Value* object, const char* name) {
  if (object == nullptr || !object->isObject()) return nullptr;
  return object->find(name, name + std::strlen(name));
}

// The member, as an object: one of another kind holds no members, and is replaced.
Json::Value& ObjectIn(Json::Value& object, const char* name) {
  Json::Value& member = object[name];
  if (!member.isObject()) member = Json::Value(Json::objectValue);
  return member;
}

}  // namespace

bool ImageSelectorUtils::CheckFileType(const char* extension) {
  if (extension == nullptr) return false;
  for (const char* accepted : kExtensions) {
    if (strcasecmp(extension, accepted) == 0) return true;
  }
  return false;
}

bool ImageSelectorUtils::CheckFileSize(const char* path) {
  struct stat status;
  return StatImage(path, &status) && status.st_size <= kKeptSize;
}

bool ImageSelectorUtils::IsImageNeededCompress(const char* path) {
  struct stat status;
  return StatImage(path, &status) && status.st_size > kUncompressedSize;
}

bool ImageSelectorUtils::IsImageTransparent(const char* path) {
  FILE* report = path == nullptr ? nullptr
                                 : VLIBCPopen(zem::kImageTool, "r", path, "-verbose",
                                              "info:", static_cast<char*>(nullptr));
  if (report == nullptr) {
    ZEM_LOG("%s:%d Failed to open pipe", zem::kImageSource);
    return false;
  }
  const bool transparent = ReportsAlpha(report);
  VLIBCPclose(report);
  return transparent;
}

bool ImageSelectorUtils::GetFileExtByIndex(const char* directory, int slot, const char* type,
                                           char* extension, int size) {
  if (directory == nullptr) {
    ZEM_LOG("%s:%d Dir is null", zem::kImageSource);
    return false;
  }
  if (type == nullptr) {
    ZEM_LOG("%s:%d Wrong type.", zem::kImageSource);
    return false;
  }
  if (extension == nullptr) {
    ZEM_LOG("%s:%d Wrong return extension.", zem::kImageSource);
    return false;
  }
  if (size < 1) {
    ZEM_LOG("%s:%d Wrong extension size.", zem::kImageSource);
    return false;
  }
  for (const char* found : kExtensions) {
    // A name that is cut here is longer than any that the system takes.
    char path[kPathSize];
    std::snprintf(path, sizeof path, kImageName, directory, type, slot < 0 ? 0 : slot, found);
    if (access(path, F_OK) != 0) continue;
    std::snprintf(extension, static_cast<size_t>(size), "%s", found);
    return true;
  }
  return false;
}

void ImageSelectorUtils::RemoveHistoryIfExist(const char* directory, const char* type, int slot) {
  if (directory == nullptr) {
    ZEM_LOG("%s:%d Dir is null", zem::kImageSource);
    return;
  }
  if (type == nullptr) {
    ZEM_LOG("%s:%d Wrong type.", zem::kImageSource);
    return;
  }
  if (slot < 0) {
    ZEM_LOG("%s:%d Wrong index.", zem::kImageSource);
    return;
  }
  char path[kPathSize];
  for (const char* extension : kExtensions) {
    std::snprintf(path, sizeof path, kImageName, directory, type, slot, extension);
    unlink(path);
  }
  for (const char* extension : kExtensions) {
    std::snprintf(path, sizeof path, kThumbName, directory, type, slot, extension);
    unlink(path);
  }
}

namespace {

// Which argument of an addition is missing; null when none is.
const char* FaultOfAddition(const char* directory, const char* type, const char* source,
                            const char* extension, const char* outImage, const char* outThumb,
                            int imageSize, int thumbSize) {
  if (directory == nullptr) return "%s:%d Dir is null";
  if (type == nullptr) return "%s:%d Wrong type.";
  if (source == nullptr) return "%s:%d Wrong file path.";
  if (extension == nullptr) return "%s:%d Wrong file extension.";
  if (outImage == nullptr) return "%s:%d Wrong return path.";
  if (outThumb == nullptr) return "%s:%d Wrong return thumb path.";
  if (imageSize < 1) return "%s:%d Wrong Path length.";
  if (thumbSize < 1) return "%s:%d Wrong Thumb Path length.";
  return nullptr;
}

}  // namespace

bool ImageSelectorUtils::AddHistory(const char* directory, const char* type, const char* source,
                                    const char* extension, char* outImage, char* outThumb,
                                    int imageSize, int thumbSize, int slot, int edge) {
  const char* fault =
      FaultOfAddition(directory, type, source, extension, outImage, outThumb, imageSize, thumbSize);
  if (fault != nullptr) {
    ZEM_LOG(fault, zem::kImageSource);
    return false;
  }
  const size_t image_room = static_cast<size_t>(imageSize);
  const size_t thumb_room = static_cast<size_t>(thumbSize);

  char lower[8];
  std::snprintf(lower, sizeof lower, "%s", extension);
  for (char* c = lower; *c != '\0'; c++)
    *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
  const bool animated = std::strcmp(lower, kAnimated) == 0;

  if (!MakeDirectory(directory)) return false;
  if (!FormatWhole(outImage, image_room, kImageName, directory, type, slot, lower)) {
    ZEM_LOG("%s:%d Wrong Path length.", zem::kImageSource);
    return false;
  }
  // The thumbnail keeps the caller's extension, also when the picture becomes a JPEG:
  // choosers look for it under either.
  if (!FormatWhole(outThumb, thumb_room, animated ? kImageName : kThumbName, directory, type, slot,
                   lower)) {
    ZEM_LOG("%s:%d Wrong Thumb Path length.", zem::kImageSource);
    return false;
  }
  if (!CopyImage(source, outImage)) return false;
  if (animated) return true;  // what moves is left as it is, and is its own thumbnail

  if (IsImageNeededCompress(outImage) && !IsImageTransparent(outImage)) {
    // The copy stays beside the compressed picture; the slot's removal takes both.
    char compressed[kCompressedPathSize];
    if (!FormatWhole(compressed, sizeof compressed, kImageName, directory, type, slot, ".jpg") ||
        std::strlen(compressed) >= image_room || !Compress(outImage, compressed)) {
      ZEM_LOG("%s:%d Failed to compress", zem::kImageSource);
      return false;
    }
    std::strcpy(outImage, compressed);
  }
  MakeThumbnail(outImage, outThumb, edge);
  return true;
}

int ImageSelectorUtils::GetLoginIndexKey(const char* type) { return GetIndexKey(kLoginKey, type); }

int ImageSelectorUtils::GetFileSharingLoginIndexKey(const char* type) {
  return GetIndexKey(kSharingKey, type);
}

bool ImageSelectorUtils::SetLoginIndexKey(const char* type, int slot) {
  return SetIndexKey(kLoginKey, type, slot);
}

bool ImageSelectorUtils::SetFileSharingLoginIndexKey(const char* type, int slot) {
  return SetIndexKey(kSharingKey, type, slot);
}

bool ImageSelectorUtils::GetLoginFileExtByIndex(int slot, const char* type, char* extension,
                                                int size) {
  return GetFileExtByIndex(zem::kLoginImages, slot, type, extension, size);
}

bool ImageSelectorUtils::GetFileSharingLoginFileExtByIndex(int slot, const char* type,
                                                           char* extension, int size) {
  return GetFileExtByIndex(zem::kSharingImages, slot, type, extension, size);
}

void ImageSelectorUtils::RemoveLoginHistoryIfExist(const char* type, int slot) {
  RemoveHistoryIfExist(zem::kLoginImages, type, slot);
}

void ImageSelectorUtils::RemoveFileSharingLoginHistoryIfExist(const char* type, int slot) {
  RemoveHistoryIfExist(zem::kSharingImages, type, slot);
}

bool ImageSelectorUtils::AddLoginHistory(const char* type, const char* source,
                                         const char* extension, char* outImage, char* outThumb,
                                         int imageSize, int thumbSize) {
  const int slot = NextSlot(GetLoginIndexKey(type));
  RemoveLoginHistoryIfExist(type, slot);
  return AddHistory(zem::kLoginImages, type, source, extension, outImage, outThumb, imageSize,
                    thumbSize, slot, kLoginEdge) &&
         SetLoginIndexKey(type, slot);
}

bool ImageSelectorUtils::AddFileSharingLoginHistory(const char* type, const char* source,
                                                    const char* extension, char* outImage,
                                                    char* outThumb, int imageSize, int thumbSize) {
  const int slot = NextSlot(GetFileSharingLoginIndexKey(type));
  RemoveFileSharingLoginHistoryIfExist(type, slot);
  return AddHistory(zem::kSharingImages, type, source, extension, outImage, outThumb, imageSize,
                    thumbSize, slot, kLoginEdge) &&
         SetFileSharingLoginIndexKey(type, slot);
}

bool ImageSelectorUtils::loadUserSettings(const std::string& user, Json::Value& settings) {
  if (user.empty()) {
    ZEM_LOG("%s:%d Bad parameter", zem::kImageSource);
    return false;
  }
  char directory[kPreferencePathSize];
  const int result = VEMOUserPreferenceDirGet(user.c_str(), directory, sizeof directory);
  if (result < 0) {
    ZEM_LOG("%s:%d Get preference directory failed: %d", zem::kImageSource, result);
    return false;
  }
  const std::string file = std::string(directory) + zem::kUserSettings;
  if (!WebUtils::LoadJsonFile(settings, file.c_str())) settings = Json::Value(Json::objectValue);
  return true;
}

bool ImageSelectorUtils::saveUserSettings(const std::string& user, const Json::Value& settings) {
  char directory[kPreferencePathSize];
  if (!DesktopDirectory(user, directory)) return false;
  const zem::EffectiveUser root(0);
  return WebUtils::SaveJsonFile(settings, (std::string(directory) + zem::kUserSettings).c_str());
}

int ImageSelectorUtils::GetDesktopIndexKey(const std::string& user) {
  if (user.empty()) {
    ZEM_LOG("%s:%d Bad parameter", zem::kImageSource);
    return 0;
  }
  Json::Value settings;
  if (!loadUserSettings(user, settings)) {
    ZEM_LOG("%s:%d Load user settings failed", zem::kImageSource);
    return 0;
  }
  const Json::Value* index =
      MemberOf(MemberOf(MemberOf(&settings, "Desktop"), "wallpaper"), "index");
  return index != nullptr && index->isInt() ? index->asInt() : 0;
}

bool ImageSelectorUtils::SetDesktopIndexKey(const std::string& user, int slot) {
  if (user.empty()) {
    ZEM_LOG("%s:%d Bad parameter", zem::kImageSource);
    return false;
  }
  Json::Value settings;
  if (!loadUserSettings(user, settings)) {
    ZEM_LOG("%s:%d Load user settings failed", zem::kImageSource);
    return false;
  }
  if (!settings.isObject()) settings = Json::Value(Json::objectValue);
  // Not reduced to the ring, as those of the login pages are: desktops read back the very
  // number that they stored.
  ObjectIn(ObjectIn(settings, "Desktop"), "wallpaper")["index"] = slot < 0 ? 0 : slot;
  if (saveUserSettings(user, settings)) return true;
  ZEM_LOG("%s:%d Save user settings failed", zem::kImageSource);
  return false;
}

bool ImageSelectorUtils::GetDesktopFileExtByIndex(const std::string& user, int slot,
                                                  char* extension, int size) {
  char directory[kPreferencePathSize];
  return DesktopDirectory(user, directory) &&
         GetFileExtByIndex(directory, slot, "", extension, size);
}

void ImageSelectorUtils::RemoveDesktopHistoryIfExist(const std::string& user, int slot) {
  char directory[kPreferencePathSize];
  if (DesktopDirectory(user, directory)) RemoveHistoryIfExist(directory, "", slot);
}

bool ImageSelectorUtils::AddDesktopHistory(const std::string& user, const char* source,
                                           const char* extension, char* outImage, char* outThumb,
                                           int imageSize, int thumbSize) {
  char directory[kPreferencePathSize];
  if (!DesktopDirectory(user, directory)) return false;
  const int slot = NextSlot(GetDesktopIndexKey(user));
  RemoveHistoryIfExist(directory, "", slot);
  return AddHistory(directory, "", source, extension, outImage, outThumb, imageSize, thumbSize,
                    slot, kDesktopEdge) &&
         SetDesktopIndexKey(user, slot);
}
