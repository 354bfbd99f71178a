// appearance.cgi: background pictures and themes.
//
//   GET  action=list    kind=KIND               {"current": slot or null, "slots": [eight of
//                                               {"picture", "thumbnail", "type", "size"} or null]}
//   GET  action=get     kind=KIND [slot=0..7] [thumb=yes]    the bytes of a picture, of the
//                                               current one without a slot
//   GET  action=load                            {"theme": ..., "themes": [...]}
//   POST action=upload  kind=KIND data=BASE64   {"slot": ...}, and it is the current one now
//   POST action=choose  kind=KIND slot=0..7     makes it the current one
//   POST action=apply   theme=NAME [key=KEY]    what the theme declares under KEY ("apply")
//
// A KIND is "login" or "sharing", the background of the login page and of that of shared
// links, for administrators, but for the current picture, which is for everybody: the pages
// show it before a login. Or "desktop", the caller's own. Themes are applied by
// administrators. POST carries the anti-forgery token. The request is a form or a JSON
// document; a slot is a number there.
//
// A picture is JPEG, PNG, GIF or BMP, whatever it is called, and no more than a body of 8 MiB
// holds: the client's file name is not asked for.
#include <appearance/image_selector_utils.h>
#include <appearance/theme_helper.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/user.h>
#include <webutils/cache.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "common/file.h"
#include "common/json_file.h"
#include "programs/confinement.h"
#include "programs/picture.h"
#include "programs/program.h"
#include "programs/turn.h"

namespace {

constexpr int kSlots = 8;
constexpr char kType[] = "bg";  // of the pictures that login pages have
constexpr char kProgram[] = "/webman/appearance.cgi";
constexpr char kThemeFile[] = "/usr/vemo/theme/theme.json";
constexpr const char* kExtensions[] = {".jpg", ".jpeg", ".jpe", ".bmp", ".gif", ".png"};
constexpr off_t kServedSize = 64 << 20;  // bytes
constexpr int kPathSize = 4097;

// The texts of this program's own section; all others are of "common".
constexpr std::string_view kOwnTexts[] = {"error_picture", "error_picture_too_large",
                                          "error_no_room", "error_theme"};

struct Outcome {
  const char* error = nullptr;  // a text's key
  Json::Value data = Json::Value(Json::objectValue);
};

// One of the three histories, and whose it is.
struct History {
  std::string name;
  std::string user;       // of the desktop; empty for login pages
  std::string directory;  // of the files
  std::string type;       // before the slot in their names

  bool IsDesktop() const { return !user.empty(); }
  bool IsLogin() const { return name == "login"; }

  int Current() const {
    if (IsDesktop()) return ImageSelectorUtils::GetDesktopIndexKey(user);
    return IsLogin() ? ImageSelectorUtils::GetLoginIndexKey(kType)
                     : ImageSelectorUtils::GetFileSharingLoginIndexKey(kType);
  }
  bool SetCurrent(int slot) const {
    if (IsDesktop()) return ImageSelectorUtils::SetDesktopIndexKey(user, slot);
    return IsLogin() ? ImageSelectorUtils::SetLoginIndexKey(kType, slot)
                     : ImageSelectorUtils::SetFileSharingLoginIndexKey(kType, slot);
  }
  void Remove(int slot) const {
    if (IsDesktop()) return ImageSelectorUtils::RemoveDesktopHistoryIfExist(user, slot);
    return IsLogin() ? ImageSelectorUtils::RemoveLoginHistoryIfExist(kType, slot)
                     : ImageSelectorUtils::RemoveFileSharingLoginHistoryIfExist(kType, slot);
  }
  bool Add(const char* source, const char* extension, char* image, char* thumb) const {
    if (IsDesktop()) {
      return ImageSelectorUtils::AddDesktopHistory(user, source, extension, image, thumb, kPathSize,
                                                   kPathSize);
    }
    const auto add = IsLogin() ? ImageSelectorUtils::AddLoginHistory
                               : ImageSelectorUtils::AddFileSharingLoginHistory;
    return add(kType, source, extension, image, thumb, kPathSize, kPathSize);
  }

  std::string FileOf(int slot, const char* thumb, const char* extension) const {
    return directory + "/" + type + std::to_string(slot) + thumb + extension;
  }
  // The picture of a slot; empty when there is none.
  std::string Find(int slot) const {
    char extension[8];
    const bool found =
        IsDesktop()
            ? ImageSelectorUtils::GetDesktopFileExtByIndex(user, slot, extension, sizeof extension)
        : IsLogin()
            ? ImageSelectorUtils::GetLoginFileExtByIndex(slot, kType, extension, sizeof extension)
            : ImageSelectorUtils::GetFileSharingLoginFileExtByIndex(slot, kType, extension,
                                                                    sizeof extension);
    return found ? FileOf(slot, "", extension) : "";
  }
  // Its thumbnail, whose extension may be another; the picture itself when it has none.
  std::string FindThumb(int slot) const {
    for (const char* extension : kExtensions) {
      const std::string path = FileOf(slot, "thumb", extension);
      if (access(path.c_str(), F_OK) == 0) return path;
    }
    return Find(slot);
  }
};

// What is asked for: everything that decides who may.
struct Asked {
  std::string action, kind;
  std::optional<int> slot;
  bool reading;  // GET or HEAD

  bool IsLoginPage() const { return kind == "login" || kind == "sharing"; }
  // The picture that a login page shows.
  bool IsPublic() const { return reading && action == "get" && IsLoginPage() && !slot; }
  bool IsForAdministrators() const { return IsLoginPage() || action == "apply"; }
};

bool IsOneOf(const std::string& action, std::initializer_list<const char*> names) {
  return std::find(names.begin(), names.end(), action) != names.end();
}

Asked Read(WebMan& request) {
  Asked asked = {program::Field(request, "action"), program::Field(request, "kind"), {}, false};
  const char* method = std::getenv("REQUEST_METHOD");
  asked.reading = method != nullptr && IsOneOf(method, {"GET", "HEAD"});
  Json::Value slot;
  // A slot that is none is kept as one that holds nothing.
  if (program::Document(request, "slot", slot)) {
    asked.slot = slot.isInt() && slot.asInt() >= 0 && slot.asInt() < kSlots ? slot.asInt() : -1;
  }
  return asked;
}

// The history that is asked for; false when there is no such kind.
bool OpenHistory(WebMan& request, const Asked& asked, History& history) {
  history.name = asked.kind;
  history.type = asked.kind == "desktop" ? "" : kType;
  if (asked.kind == "login") {
    history.directory = "/usr/vemo/etc/login_image";
  } else if (asked.kind == "sharing") {
    history.directory = "/usr/vemo/etc/fbsharing_login_image";
  } else if (asked.kind == "desktop") {
    char directory[kPathSize];
    history.user = request.GetLoginUserName();
    if (VEMOUserPreferenceDirGet(history.user.c_str(), directory, sizeof directory) != 0)
      return false;
    history.directory = directory;
  }
  return !history.directory.empty();
}

// --- Reading -----------------------------------------------------------------

struct File {
  zem::Descriptor descriptor;
  struct stat status = {};
  const char* content_type = nullptr;
};

// Opens a picture; what stands in a user's directory need not be one.
bool OpenPicture(const std::string& path, File& file) {
  char start[16];
  if (path.empty()) return false;
  file.descriptor = zem::OpenRegularFile(path.c_str(), O_NOFOLLOW);
  if (!file.descriptor || fstat(file.descriptor.get(), &file.status) != 0 ||
      file.status.st_size > kServedSize)
    return false;
  const ssize_t size = pread(file.descriptor.get(), start, sizeof start, 0);
  if (size <= 0) return false;
  file.content_type = program::PictureContentType({start, static_cast<size_t>(size)});
  return file.content_type != nullptr;
}

// Changes with the file.
std::string Version(const struct stat& status) {
  char version[64];
  std::snprintf(version, sizeof version, "%llx-%llx-%llx",
                static_cast<unsigned long long>(status.st_ino),
                static_cast<unsigned long long>(status.st_mtim.tv_sec) * 1000000000 +
                    static_cast<unsigned long long>(status.st_mtim.tv_nsec),
                static_cast<unsigned long long>(status.st_size));
  return version;
}

std::string AddressOf(const History& history, int slot, bool thumb, const struct stat& status) {
  return std::string(kProgram) + "?action=get&kind=" + history.name +
         "&slot=" + std::to_string(slot) + (thumb ? "&thumb=yes" : "") + "&v=" + Version(status);
}

Json::Value Describe(const History& history, int slot) {
  File picture, thumb;
  Json::Value entry;
  if (!OpenPicture(history.Find(slot), picture)) return entry;
  const bool small = OpenPicture(history.FindThumb(slot), thumb);
  entry["picture"] = AddressOf(history, slot, false, picture.status);
  const bool apart = small && thumb.status.st_ino != picture.status.st_ino;
  entry["thumbnail"] = apart ? AddressOf(history, slot, true, thumb.status) : entry["picture"];
  entry["type"] = picture.content_type;
  entry["size"] = static_cast<Json::Int64>(picture.status.st_size);
  return entry;
}

// Desktops may have stored any number; the next addition counts from it in the ring.
int CurrentSlot(const History& history) {
  return static_cast<int>(static_cast<unsigned>(history.Current()) % kSlots);
}

Outcome List(const History& history) {
  Outcome outcome;
  Json::Value& slots = outcome.data["slots"] = Json::Value(Json::arrayValue);
  for (int slot = 0; slot < kSlots; slot++)
    slots.append(Describe(history, slot));
  const int current = CurrentSlot(history);
  outcome.data["current"] =
      slots[static_cast<Json::ArrayIndex>(current)].isNull() ? Json::Value() : Json::Value(current);
  return outcome;
}

// Writes the picture, and returns true; false: there is none.
bool WritePicture(WebMan& request, const History& history, const Asked& asked) {
  const int slot = asked.slot.value_or(CurrentSlot(history));
  const bool thumb = program::Field(request, "thumb") == "yes";
  File file;
  std::string bytes;
  if (slot < 0 || !OpenPicture(thumb ? history.FindThumb(slot) : history.Find(slot), file))
    return false;
  const std::string tag = '"' + Version(file.status) + '"';
  if (WebUtils::OutputNotModifiedIfMatch(tag)) return true;
  if (!zem::ReadAll(file.descriptor.get(), bytes)) return false;
  // Kept by this browser, and asked about each time: the session may have ended.
  request.AddHeader("Cache-Control", "private, no-cache");
  request.AddHeader("ETag", tag.c_str());
  request.WriteHeader(file.content_type);
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  return true;
}

// --- Changing ----------------------------------------------------------------

const char* ErrorOfTurn() {
  return VLIBCErrGet() == VEMOERR_BUSY ? "error_occupied" : "error_system";
}

// The lock of a history's files, root's. An addition holds it while it waits for the tool.
std::string LockOf(const History& history) {
  const std::string start = std::string(program::kAppearanceState) + "/" + history.name;
  struct stat status;
  if (!history.IsDesktop()) return start + ".lock";
  return stat(history.directory.c_str(), &status) == 0
             ? start + "." + std::to_string(status.st_uid) + ".lock"
             : "";
}

// A desktop's slot is one of the user's settings, which have a lock that all programs share,
// taken as whoever keeps them: it must not be held for long. Null: taken; else the error.
const char* TakeSettings(WebMan& request, const History& history,
                         std::optional<program::Turn>& turn) {
  if (!history.IsDesktop()) return nullptr;
  if (request.setEUGID() != 0) return "error_system";
  turn.emplace(history.directory + "/settings.lock");
  return turn->taken() ? nullptr : ErrorOfTurn();
}

// A file under a name that this program has chosen, gone at the end of its scope. There is
// one a history, under its lock.
class Waiting {
 public:
  Waiting(const History& history, const std::string& bytes)
      : path_((history.IsDesktop() ? history.directory : program::kAppearanceState) +
              std::string("/picture.new")) {
    unlink(path_.c_str());
    const zem::Descriptor file(
        open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    written_ = file && zem::WriteAll(file.get(), bytes);
  }
  ~Waiting() { unlink(path_.c_str()); }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;
  bool written() const { return written_; }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
  bool written_;
};

// What the tool has made; a picture that it could not write to its end is none.
program::Picture Inspect(const std::string& path) {
  std::string bytes;
  const zem::Descriptor file = zem::OpenRegularFile(path.c_str(), O_NOFOLLOW);
  if (!file || !zem::ReadAll(file.get(), bytes)) return {};
  return program::InspectPicture(bytes);
}

// What is wrong with an addition; null: nothing. A copy counts as made when the disk was
// full, and as good when the tool could not read it. A large JPEG is compressed in its
// place, and has another size then.
const char* FaultOfAddition(const program::Picture& picture, size_t size, const std::string& copy,
                            const std::string& image, const std::string& thumb) {
  constexpr size_t kUncompressedSize = 2 << 20;
  constexpr std::string_view kJpeg = "image/jpeg";
  struct stat status;
  const bool replaced = kJpeg == picture.content_type && size > kUncompressedSize;
  if (stat(copy.c_str(), &status) != 0) return "error_system";
  if (!replaced && static_cast<unsigned long long>(status.st_size) != size) return "error_system";
  if (Inspect(thumb).fault != program::PictureFault::kNone) return "error_picture";
  if (!replaced && copy == image) return nullptr;
  const program::Picture made = Inspect(image);
  const bool whole = made.fault == program::PictureFault::kNone && kJpeg == made.content_type &&
                     made.width == picture.width && made.height == picture.height;
  return whole ? nullptr : "error_picture";
}

// Whether there is room for what waits, its copy and what is made of it, and for the
// settings: they are rewritten in place, and a full disk would cut them.
bool HasRoom(const std::string& directory, size_t size) {
  constexpr unsigned long long kSpare = 4 << 20;
  struct statvfs status;
  if (statvfs(directory.c_str(), &status) != 0) return true;  // not made yet
  return static_cast<unsigned long long>(status.f_bavail) * status.f_frsize >= size * 3 + kSpare;
}

// Adds under the lock of the history.
Outcome Add(const History& history, const program::Picture& picture, const std::string& bytes) {
  if (!HasRoom(history.directory, bytes.size())) return {"error_no_room"};
  const Waiting waiting(history, bytes);
  if (!waiting.written()) return {"error_system"};
  const int before = history.Current();
  const int slot = static_cast<int>((static_cast<unsigned>(before) + 1) % kSlots);
  char image[kPathSize] = "", thumb[kPathSize] = "";
  const bool added = history.Add(waiting.path(), picture.extension, image, thumb);
  Outcome outcome;
  outcome.error = FaultOfAddition(picture, bytes.size(),
                                  history.FileOf(slot, "", picture.extension), image, thumb);
  if (!added && outcome.error == nullptr) outcome.error = "error_system";
  if (outcome.error != nullptr) {
    history.Remove(slot);
    if (added) history.SetCurrent(before);
    return outcome;
  }
  outcome.data["slot"] = slot;
  return outcome;
}

Outcome Upload(WebMan& request, const History& history) {
  std::string bytes;
  if (!program::DecodeBase64(program::Field(request, "data"), bytes) || bytes.empty())
    return {"error_request"};
  const program::Picture picture = program::InspectPicture(bytes);
  if (picture.fault == program::PictureFault::kTooLarge) return {"error_picture_too_large"};
  if (picture.fault != program::PictureFault::kNone) return {"error_picture"};

  if (!program::PrepareAppearanceState() || !program::ConfineTools()) return {"error_system"};
  const program::Turn turn(LockOf(history));
  if (!turn.taken()) return {ErrorOfTurn()};
  const program::ToolTurn tool;
  if (!tool.taken()) return {ErrorOfTurn()};
  std::optional<program::Turn> settings;
  if (const char* error = TakeSettings(request, history, settings); error != nullptr)
    return {error};
  if (history.IsDesktop() && (seteuid(0) != 0 || !program::ActAsAccount(history.user)))
    return {"error_system"};
  return Add(history, picture, bytes);
}

Outcome Choose(WebMan& request, const History& history, const Asked& asked) {
  if (!asked.slot || *asked.slot < 0) return {"error_request"};
  if (!program::PrepareAppearanceState()) return {"error_system"};
  const program::Turn turn(LockOf(history));
  if (!turn.taken()) return {ErrorOfTurn()};
  std::optional<program::Turn> settings;
  if (const char* error = TakeSettings(request, history, settings); error != nullptr)
    return {error};
  File picture;
  if (!OpenPicture(history.Find(*asked.slot), picture)) return {"error_not_found"};
  return {history.SetCurrent(*asked.slot) ? nullptr : "error_system"};
}

// --- Themes ------------------------------------------------------------------

// A name that can be a class of pages and a value of the settings.
bool IsThemeName(const std::string& name) {
  return !name.empty() && name.size() <= 64 &&
         name.find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
             "0123456789_-") == std::string::npos;
}

Outcome LoadThemes() {
  Outcome outcome;
  Json::Value document;
  Json::Value& themes = outcome.data["themes"] = Json::Value(Json::arrayValue);
  outcome.data["theme"] = WebUtils::getThemeCls();
  if (!zem::JsonFromFile(document, kThemeFile) || !document.isObject()) return outcome;
  for (const std::string& name : document.getMemberNames()) {
    if (IsThemeName(name) && document[name].isObject()) themes.append(name);
  }
  return outcome;
}

// Whether each mapping has become its link: the library only logs what failed.
bool IsApplied(const Json::Value& mappings) {
  return std::all_of(mappings.begin(), mappings.end(), [](const Json::Value& mapping) {
    if (!mapping.isObject() || !mapping["source"].isString() || !mapping["target"].isString())
      return true;
    char link[kPathSize];
    const ssize_t size = readlink(mapping["target"].asCString(), link, sizeof link);
    return size >= 0 &&
           mapping["source"].asString() == std::string_view(link, static_cast<size_t>(size));
  });
}

Outcome Apply(WebMan& request) {
  const std::string theme = program::Field(request, "theme");
  std::string key = program::Field(request, "key");
  if (key.empty()) key = "apply";
  VEMO::KTR::ThemeHelper helper;
  if (!IsThemeName(theme)) return {"error_request"};
  if (!program::PrepareAppearanceState()) return {"error_system"};
  const program::Turn turn(std::string(program::kAppearanceState) + "/theme.lock");
  if (!turn.taken()) return {ErrorOfTurn()};
  if (!helper.Parse()) return {"error_system"};
  const Json::Value steps = helper.GetTheme(theme).GetThemeByKey(key);
  if (!steps.isObject() || !steps["mappings"].isArray()) return {"error_not_found"};
  helper.Action(theme, key);
  if (!IsApplied(steps["mappings"])) return {"error_theme"};
  return {VLIBCINFOSetKeyValue("theme", theme.c_str()) >= 0 ? nullptr : "error_system"};
}

// --- Actions -----------------------------------------------------------------

Outcome Change(WebMan& request, const Asked& asked) {
  if (asked.action == "apply") return Apply(request);
  History history;
  if (!OpenHistory(request, asked, history)) return {"error_request"};
  return asked.action == "upload" ? Upload(request, history) : Choose(request, history, asked);
}

void Answer(WebMan& request, const Outcome& outcome) {
  if (outcome.error == nullptr) {
    program::AnswerSuccess(request, outcome.data);
  } else {
    const bool own =
        std::find(std::begin(kOwnTexts), std::end(kOwnTexts), outcome.error) != std::end(kOwnTexts);
    program::AnswerFailure(request, own ? "appearance" : "common", outcome.error);
  }
}

// Answers an action that changes nothing, as the caller, for good.
void Look(WebMan& request, const Asked& asked) {
  History history;
  Outcome outcome = {"error_request"};
  if (asked.action == "load") {
    outcome = LoadThemes();
  } else if (OpenHistory(request, asked, history)) {
    if (history.IsDesktop() && request.setUGID() != 0) {
      outcome = {"error_system"};
    } else if (asked.action == "list") {
      outcome = List(history);
    } else if (WritePicture(request, history, asked)) {
      return;
    } else {
      outcome = {"error_not_found"};
    }
  }
  Answer(request, outcome);
}

void Run(WebMan& request, const Asked& asked) {
  if (IsOneOf(asked.action, {"load", "list", "get"})) return Look(request, asked);
  Outcome outcome = {"error_request"};
  // GET changes nothing, whatever it asks for.
  if (program::IsPost() && IsOneOf(asked.action, {"upload", "choose", "apply"})) {
    // A slot that is emptied, its picture and its number belong together, also when the
    // client hangs up.
    VLIBCSigtermHold();
    outcome = Change(request, asked);
    VLIBCSigtermRelease();
  }
  Answer(request, outcome);
}

}  // namespace

int main() {
  WebMan request(true);
  program::QueuePrivateHeaders(request);
  const Asked asked = Read(request);
  const auto privilege = asked.IsForAdministrators() ? VEMOCGI_PRIV_ADMIN : VEMOCGI_PRIV_USER;
  if (!asked.IsPublic() && !request.IsAuthorized(nullptr, privilege, VEMOCGI_POS_DESKTOP)) return 0;
  Run(request, asked);
  return 0;
}
