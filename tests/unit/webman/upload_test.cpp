// Uploads in the request object: which directory, which answer, and which slice is found
// under an id.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/errors.h>
#include <webman/webman.h>

#include <regex>
#include <set>

#include "support/syslog.h"
#include "unit/platform/cgi_accounts.h"

using namespace accounts;

namespace {

const std::string kRegistry = "/tmp/slice_file_id";

void Mount(const std::string& path, const std::string& options) {
  std::filesystem::create_directories(path);
  ASSERT_EQ(mount("none", path.c_str(), "tmpfs", 0, options.c_str()), 0) << path;
}

void MakeReadOnly(const std::string& path) {
  ASSERT_EQ(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
}

std::set<std::string> Names(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.insert(entry.path().filename());
  return names;
}

mode_t ModeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

std::string FileBody(const std::string& content) {
  return "--B\r\nContent-Disposition: form-data; name=\"dir\"\r\n\r\nout\r\n"
         "--B\r\nContent-Disposition: form-data; name=\"file\"; filename=\"f.txt\"\r\n\r\n" +
         content + "\r\n--B--\r\n";
}

support::Environment Upload(const std::string& body, const support::Environment& more = {}) {
  support::Environment environment = {{"REQUEST_METHOD", "POST"},
                                      {"REMOTE_ADDR", "192.0.2.1"},
                                      {"CONTENT_TYPE", "multipart/form-data; boundary=B"},
                                      {"CONTENT_LENGTH", std::to_string(body.size())}};
  for (const auto& [name, value] : more)
    environment[name] = value;
  return environment;
}

// What `program` prints in a request of its own.
std::string Serve(const support::Environment& environment, const std::string& body,
                  const std::function<void(WebMan&)>& program) {
  const auto answer = support::RunRequest(environment, body, [&] {
    umask(022);
    {
      WebMan request(false);
      program(request);
    }
    // The leak checker at the end looks at the whole process, which root alone may.
    if (geteuid() != 0 && (seteuid(0) != 0 || setegid(0) != 0)) abort();
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(answer.exit_status, 0);
  EXPECT_EQ(answer.signal, 0);
  return answer.output;
}

// A log line without its line number.
std::vector<std::string> Texts(support::Syslog& log) {
  std::vector<std::string> texts;
  for (const auto& text : log.TakeTexts())
    texts.push_back(std::regex_replace(text, std::regex("^(webman[:(])[0-9]+"), "$1N"));
  return texts;
}

using Log = std::vector<std::string>;

// --- The spool directory ---

struct Found {
  bool found;
  std::string path;
  int error;
};

Found Find(unsigned long long needed, int size = 4096) {
  WebMan request(false);
  char path[4096] = "untouched";
  VLIBCErrSetEx(0x1234, "", 0);
  const bool found = request.FindUploadTmpPath(path, size, needed);
  return {found, path, VLIBCErrGet()};
}

TEST(UploadSpool, IsOnTheVolumeWithMostRoom) {
  Mount("/volume1", "size=8m");
  Mount("/volume2", "size=32m");
  Mount("/volume3", "size=16m");
  EXPECT_EQ(Find(1024).path, "/volume2/@tmp");
  Write("/volume2/filler", std::string(20 << 20, 'x'));
  EXPECT_EQ(Find(1024).path, "/volume3/@tmp");
  MakeReadOnly("/volume3");
  EXPECT_EQ(Find(1024).path, "/volume2/@tmp");
  EXPECT_EQ(Find(1024).error, 0x1234);
}

TEST(UploadSpool, NeedsABuffer) {
  Mount("/volume1", "size=8m");
  WebMan request(false);
  char path[16] = "untouched";
  EXPECT_FALSE(request.FindUploadTmpPath(nullptr, 16, 1));
  EXPECT_FALSE(request.FindUploadTmpPath(path, 0, 1));
  EXPECT_FALSE(request.FindUploadTmpPath(path, -1, 1));
  EXPECT_STREQ(path, "untouched");
  EXPECT_TRUE(request.FindUploadTmpPath(path, 10, 1));
  EXPECT_STREQ(path, "/volume1/");  // cut, and ended
  EXPECT_TRUE(request.FindUploadTmpPath(path, 1, 1));
  EXPECT_STREQ(path, "");
}

TEST(UploadSpool, NoVolume) {
  std::filesystem::create_directories("/volume1");  // a directory alone is none
  const Found none = Find(1);
  EXPECT_FALSE(none.found);
  EXPECT_EQ(none.path, "untouched");
  EXPECT_EQ(none.error, VEMOERR_NO_VOLUME);
}

TEST(UploadSpool, FullVolumes) {
  Mount("/volume1", "size=512k");
  Mount("/volume2", "size=8m");
  EXPECT_TRUE(Find(4096).found);
  EXPECT_EQ(Find(16384).error, VEMOERR_VOLUME_FULL);
  MakeReadOnly("/volume2");
  // The more hopeful reason counts: of two, one is only full.
  EXPECT_EQ(Find(4096).error, VEMOERR_VOLUME_FULL);
}

TEST(UploadSpool, VolumesThatCannotBeUsed) {
  Mount("/volume1", "size=8m");
  MakeReadOnly("/volume1");
  EXPECT_EQ(Find(1).error, VEMOERR_VOLUME_UNUSABLE);
}

TEST(UploadSpool, VolumesThatCannotBeAsked) {
  support::Syslog log;
  Mount("/volume1", "size=8m");
  ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
  const Found found = Find(1);
  EXPECT_FALSE(found.found);
  EXPECT_EQ(found.error, VEMOERR_IO);
  EXPECT_EQ(Texts(log), (Log{"webman:N VolumeAvailGet() failed!! vemoerr=[0x0400]"}));
  ASSERT_EQ(mount("proc", "/proc", "proc", 0, nullptr), 0);  // for the sanitizers
}

// --- Receiving ---

std::string Receive(const char* directory) {
  const std::string body = FileBody("content");
  return Serve(Upload(body), body,
               [&](WebMan& request) { printf("%d", request.LoadIn(directory)); });
}

TEST(UploadLoad, ResultsByReason) {
  support::Syslog log;
  const Log no_path = {"webman(N)no path for upload"};
  EXPECT_EQ(Receive(nullptr), "-13");
  EXPECT_EQ(Texts(log), no_path);
  Mount("/volume1", "size=8m");
  MakeReadOnly("/volume1");
  EXPECT_EQ(Receive(nullptr), "-12");
  EXPECT_EQ(Texts(log), no_path);
  Mount("/volume2", "size=1000k");  // less than 1 MiB
  EXPECT_EQ(Receive(nullptr), "-2");
  EXPECT_EQ(Texts(log), no_path);
  Mount("/volume3", "size=2m");
  EXPECT_EQ(Receive(nullptr), "0");
  EXPECT_EQ(Texts(log), Log());
  EXPECT_EQ(ModeOf("/volume3/@tmp"), 01777u);
}

TEST(UploadLoad, AnyOtherReason) {
  support::Syslog log;
  Mount("/volume1", "size=8m");
  ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
  WebMan request(false);
  EXPECT_EQ(request.LoadIn(nullptr), -9);
  EXPECT_EQ(Texts(log), (Log{"webman:N VolumeAvailGet() failed!! vemoerr=[0x0400]",
                             "webman(N)no path for upload"}));
  ASSERT_EQ(mount("proc", "/proc", "proc", 0, nullptr), 0);
}

TEST(UploadLoad, ADirectoryThatIsGivenIsTaken) {
  support::Syslog log;
  Mount("/volume1", "size=8m");
  Mount("/volume2", "size=1m");
  EXPECT_EQ(Receive("/volume2/@tmp"), "0");
  EXPECT_FALSE(std::filesystem::exists("/volume1/@tmp"));
  EXPECT_EQ(Receive("/volume9/@tmp"), "-13");
  EXPECT_EQ(Texts(log), (Log{"webman(N)failed to upload to path /volume9/@tmp"}));
}

TEST(UploadLoad, WholeFiles) {
  Mount("/volume1", "size=8m");
  const std::string body = FileBody("content");
  Serve(Upload(body), body, [](WebMan& request) {
    static unsigned long long done, total;
    const VEMOUPLOADCALLBACK note = [](unsigned long long d, unsigned long long t) {
      done = d;
      total = t;
    };
    EXPECT_TRUE(request.IsUploadRequest());
    EXPECT_FALSE(request.IsSliceUploadRequest());
    EXPECT_FALSE(request.IsSliceUploadFinish());
    EXPECT_EQ(request.GetSliceUploadTmpFile(), nullptr);
    EXPECT_EQ(request.GetUploadFileSize(), -1);
    EXPECT_EQ(request.LoadIn(nullptr), 0);
    EXPECT_EQ(request.LoadUploadParams(note, nullptr), 1);
    EXPECT_EQ(total, 3u);
    EXPECT_STREQ(request.In("dir", ""), "out");
    EXPECT_STREQ(request.In("file", ""), "f.txt");
    EXPECT_EQ(request.GetUploadFileSize(), 7);
    EXPECT_FALSE(request.RecvHup());
    VEMOUPLOADPROGRESS progress = {};
    EXPECT_EQ(request.LoadUploadFile("/volume1/f", note, &progress), 1);
    EXPECT_EQ(done, 7u);
    EXPECT_EQ(progress.done, 7u);
    EXPECT_EQ(request.LoadUploadFile("/volume1/g", nullptr, nullptr), 0);
    EXPECT_EQ(request.GetUploadFileSize(), -1);
  });
  EXPECT_EQ(Read("/volume1/f"), "content");
}

TEST(UploadLoad, TheOtherWaysToStore) {
  Mount("/volume1", "size=8m");
  Write("/etc/vemo/bandwidth.conf", "slow=1\n");
  const std::string body = FileBody("new");
  Write("/volume1/f", "0123456789");
  Serve(Upload(body), body, [](WebMan& request) {
    EXPECT_EQ(request.LoadIn(nullptr), 0);
    EXPECT_EQ(request.LoadUploadFileNoTruncate("/volume1/f", nullptr, nullptr,
                                               []() -> long long { return 5; }),
              1);
  });
  EXPECT_EQ(Read("/volume1/f"), "new34");
  const std::string large = FileBody(std::string(700, 'x'));
  const auto start = std::chrono::steady_clock::now();
  Serve(Upload(large), large, [](WebMan& request) {
    EXPECT_EQ(request.LoadIn(nullptr), 0);
    EXPECT_EQ(request.LoadUploadFileBW("/volume1/g", nullptr, nullptr, "slow"), 1);
  });
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(680));
}

TEST(UploadLoad, AClientThatHungUp) {
  Mount("/volume1", "size=8m");
  const std::string body = FileBody("content");
  auto environment = Upload(body);
  environment["CONTENT_LENGTH"] = "100000";
  Serve(environment, body, [](WebMan& request) {
    EXPECT_EQ(request.LoadIn(nullptr), -21);
    EXPECT_TRUE(request.RecvHup());
  });
}

// --- The registry of slices ---

class SliceRegistry : public testing::Test {
 protected:
  void SetUp() override {
    umask(022);
    unsetenv("HTTP_X_TMP_FILE");
    unsetenv("VEMO_SLICE_TMP_FILE");
  }

  bool Save(const char* id, const char* path) { return request_.SaveSliceUploadTmpFile(id, path); }

  // What is found under the id.
  std::string Get(const std::string& id) {
    unsetenv("VEMO_SLICE_TMP_FILE");
    setenv("HTTP_X_TMP_FILE", id.c_str(), 1);
    const char* path = request_.GetSliceUploadTmpFile();
    const char* exported = getenv("VEMO_SLICE_TMP_FILE");
    EXPECT_STREQ(exported, path);
    return path == nullptr ? "(null)" : path;
  }

  bool Delete(const std::string& id) {
    setenv("HTTP_X_TMP_FILE", id.c_str(), 1);
    return request_.DeleteSliceUploadTmpFile();
  }

  WebMan request_{false};
};

TEST_F(SliceRegistry, KeepsPathsUnderIds) {
  EXPECT_TRUE(Save("one", "/volume1/@tmp/1"));
  EXPECT_TRUE(Save("two", "/volume1/@tmp/a b=c\"d\\e"));
  EXPECT_EQ(Names(kRegistry), (std::set<std::string>{"one", "two"}));
  EXPECT_EQ(ModeOf(kRegistry), 0755u);
  EXPECT_EQ(ModeOf(kRegistry + "/one"), 0600u);
  char value[64];
  ASSERT_EQ(VLIBCFileGetKeyValue("/tmp/slice_file_id/one", "one", value, sizeof value), 1);
  EXPECT_STREQ(value, "/volume1/@tmp/1");
  EXPECT_EQ(Get("one"), "/volume1/@tmp/1");
  EXPECT_EQ(Get("two"), "/volume1/@tmp/a b=c\"d\\e");
  EXPECT_EQ(Get("three"), "(null)");
  EXPECT_TRUE(Save("one", "/volume2/@tmp/1"));
  EXPECT_EQ(Get("one"), "/volume2/@tmp/1");
  EXPECT_TRUE(Delete("one"));
  EXPECT_EQ(Get("one"), "(null)");
  EXPECT_FALSE(Delete("one"));
  EXPECT_EQ(Get("two"), "/volume1/@tmp/a b=c\"d\\e");
}

TEST_F(SliceRegistry, TheDirectorysModeIsTheProcesss) {
  umask(0);
  EXPECT_TRUE(Save("one", "/x"));
  EXPECT_EQ(ModeOf(kRegistry), 0777u);
  EXPECT_EQ(ModeOf(kRegistry + "/one"), 0600u);
}

TEST_F(SliceRegistry, RefusesIdsThatLeadElsewhere) {
  EXPECT_FALSE(Save(nullptr, "/x"));
  EXPECT_FALSE(Save("id", nullptr));
  ASSERT_TRUE(Save("id", "/x"));
  std::filesystem::create_directory("/tmp/slice_file_id/sub");
  Write("/tmp/outside", "outside=/x\n../outside=/x\nout=/x\n");
  Write("/tmp/slice_file_id/sub/id", "sub/id=/x\n");
  std::filesystem::create_symlink("/tmp/outside", "/tmp/slice_file_id/out");
  for (const std::string id :
       {"", ".", "..", "/", "../outside", "../../etc/passwd", "../etc/passwd", "/etc/passwd",
        "./id", "sub/../id", "id/", "out", "a=b", "=", "a b", "a\nb", "a\"b", "#a"}) {
    EXPECT_FALSE(Save(id.c_str(), "/x")) << id;
    EXPECT_EQ(Get(id), "(null)") << id;
    EXPECT_FALSE(Delete(id)) << id;
  }
  EXPECT_FALSE(Save("sub/id", "/x"));
  const std::string longest(255, 'a'), longer(256, 'a'), cut(5000, 'a');
  EXPECT_FALSE(Save(longer.c_str(), "/x"));
  EXPECT_EQ(Get(longer), "(null)");
  EXPECT_FALSE(Save(cut.c_str(), "/x"));
  EXPECT_FALSE(Delete(cut));
  EXPECT_EQ(Read("/tmp/outside"), "outside=/x\n../outside=/x\nout=/x\n");
  EXPECT_TRUE(std::filesystem::is_symlink("/tmp/slice_file_id/out"));
  EXPECT_EQ(Get("id"), "/x");
}

TEST_F(SliceRegistry, AnIdWithAnEqualsSignIsNeverLookedUp) {
  ASSERT_TRUE(Save("id", "/x"));
  Write("/tmp/slice_file_id/a=b", "a=b=/x\na=/x\n");
  EXPECT_EQ(Get("a=b"), "(null)");
  EXPECT_TRUE(Delete("a=b"));  // but it can be removed
}

TEST_F(SliceRegistry, NoHeaderNoRecord) {
  ASSERT_TRUE(Save("id", "/x"));
  unsetenv("HTTP_X_TMP_FILE");
  EXPECT_FALSE(request_.DeleteSliceUploadTmpFile());
  EXPECT_EQ(request_.GetSliceUploadTmpFile(), nullptr);
}

TEST_F(SliceRegistry, RecordsWithoutAPath) {
  ASSERT_TRUE(Save("id", ""));
  EXPECT_EQ(Get("id"), "(null)");
  Write("/tmp/slice_file_id/other", "id=/x\n");
  EXPECT_EQ(Get("other"), "(null)");
  Write("/tmp/slice_file_id/empty", "");
  EXPECT_EQ(Get("empty"), "(null)");
}

TEST_F(SliceRegistry, TheFrameworkKnowsFirst) {
  ASSERT_TRUE(Save("id", "/recorded"));
  setenv("HTTP_X_TMP_FILE", "id", 1);
  setenv("VEMO_SLICE_TMP_FILE", "/known", 1);
  EXPECT_STREQ(request_.GetSliceUploadTmpFile(), "/known");
}

TEST_F(SliceRegistry, RecordsThatAreNotRoots) {
  ASSERT_TRUE(Save("id", "/x"));
  ASSERT_EQ(chown("/tmp/slice_file_id/id", 5001, 5001), 0);
  EXPECT_EQ(Get("id"), "(null)");
  ASSERT_EQ(mkfifo("/tmp/slice_file_id/fifo", 0600), 0);
  EXPECT_EQ(Get("fifo"), "(null)");
  std::filesystem::create_directory("/tmp/slice_file_id/dir");
  EXPECT_EQ(Get("dir"), "(null)");
}

TEST_F(SliceRegistry, ADirectoryThatSomebodyElseMade) {
  support::Syslog log;
  std::filesystem::create_directory(kRegistry);
  Write("/tmp/slice_file_id/id", "id=/etc/passwd\n");
  ASSERT_EQ(chown(kRegistry.c_str(), 5001, 5001), 0);
  EXPECT_EQ(Get("id"), "(null)");
  EXPECT_FALSE(Delete("id"));
  EXPECT_FALSE(Save("other", "/x"));
  EXPECT_EQ(Texts(log), (Log{"webman:N /tmp/slice_file_id is not root's"}));
  std::filesystem::remove_all(kRegistry);
  std::filesystem::create_directory("/tmp/planted");
  Write("/tmp/planted/id", "id=/etc/passwd\n");
  std::filesystem::create_symlink("/tmp/planted", kRegistry);
  EXPECT_EQ(Get("id"), "(null)");
  EXPECT_FALSE(Delete("id"));
  EXPECT_FALSE(Save("other", "/x"));
  EXPECT_EQ(Names("/tmp/planted"), std::set<std::string>{"id"});
}

TEST_F(SliceRegistry, ADirectoryThatCannotBeMade) {
  support::Syslog log;
  ASSERT_EQ(mount("none", "/tmp", "tmpfs", 0, "size=64k"), 0);
  MakeReadOnly("/tmp");
  EXPECT_FALSE(Save("id", "/x"));
  EXPECT_EQ(Texts(log),
            (Log{"webman:N Failed to mkdir /tmp/slice_file_id, Read-only file system"}));
}

TEST_F(SliceRegistry, ARecordThatCannotBeDeleted) {
  support::Syslog log;
  ASSERT_TRUE(Save("id", "/x"));
  std::filesystem::create_directory("/tmp/slice_file_id/dir");
  EXPECT_FALSE(Delete("dir"));
  EXPECT_EQ(Texts(log), (Log{"webman:N unlink failed."}));
}

TEST_F(SliceRegistry, IsRootsAlsoForAProcessThatActsAsTheUser) {
  ASSERT_EQ(seteuid(5001), 0);
  EXPECT_TRUE(Save("id", "/x"));
  EXPECT_EQ(Get("id"), "/x");
  EXPECT_EQ(geteuid(), 5001u);
  EXPECT_TRUE(Delete("id"));
  EXPECT_EQ(geteuid(), 5001u);
  ASSERT_EQ(seteuid(0), 0);
  struct stat status;
  ASSERT_EQ(stat(kRegistry.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 0u);
}

// --- Slices, as a program receives them ---

class SliceUpload : public testing::Test {
 protected:
  void SetUp() override {
    umask(022);
    Prepare();
    Mount("/volume1", "size=8m,mode=755");
    std::filesystem::create_directories("/volume1/out");
    ASSERT_EQ(chown("/volume1/out", 5001, 5001), 0);
    AddUser("mona", "mona-pass", "-u 5001");
    AddUser("theo", "theo-pass", "-u 5002");
    mona_ = LogIn("mona", "mona-pass");
    theo_ = LogIn("theo", "theo-pass");
  }

  // One slice; the id that it was given is added to the answer.
  std::string Send(const std::string& range, const std::string& content, const std::string& id,
                   const Login& login) {
    const std::string body = FileBody(content);
    support::Environment more = {{"HTTP_CONTENT_RANGE", "bytes " + range},
                                 {"HTTP_COOKIE", "id=" + login.id},
                                 {"HTTP_X_VEMO_TOKEN", login.token}};
    if (!id.empty()) more["HTTP_X_TMP_FILE"] = id;
    return Serve(Upload(body, more), body, [&](WebMan& request) {
      ASSERT_EQ(request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false), 1);
      ASSERT_EQ(request.setEUGID(), 0);
      EXPECT_TRUE(request.IsSliceUploadRequest());
      const int result = request.LoadIn(nullptr);
      printf("%d %lld", result, request.GetUploadFileSize());
      if (result < 0) return;
      const std::string path = request.GetSliceUploadTmpFile();
      const std::string name = path.substr(path.rfind('/') + 1).substr(6, 22);
      if (id.empty()) {
        EXPECT_TRUE(request.SaveSliceUploadTmpFile(name.c_str(), path.c_str()));
        setenv("HTTP_X_TMP_FILE", name.c_str(), 1);
      }
      const int stored = request.LoadUploadFile("/volume1/out/f", nullptr, nullptr);
      EXPECT_EQ(stored, request.IsSliceUploadFinish() ? 1 : 0);
      EXPECT_EQ(stored == 1 && request.DeleteSliceUploadTmpFile(), stored == 1);
      if (id.empty()) printf(" %s", name.c_str());
    });
  }

  Login mona_, theo_;
};

TEST_F(SliceUpload, FromTheFirstToTheLast) {
  const std::string first = Send("0-3/10", "0123", "", mona_);
  ASSERT_EQ(first.substr(0, 4), "0 4 ");
  const std::string id = first.substr(4);
  EXPECT_EQ(id.size(), 22u);
  EXPECT_EQ(Names(kRegistry), std::set<std::string>{id});
  EXPECT_EQ(Send("3-6/10", "3456", id, mona_), "-22 4");
  EXPECT_EQ(Send("4-6/10", "456", id, theo_), "-22 -1");
  EXPECT_EQ(Send("4-6/10", "456", "unknown", mona_), "-22 -1");
  EXPECT_EQ(Send("4-6/10", "456", "../../etc/passwd", mona_), "-22 -1");
  EXPECT_EQ(Send("4-6/10", "456", id, mona_), "0 7");
  EXPECT_EQ(Send("7-9/10", "789", id, mona_), "0 10");
  EXPECT_EQ(Read("/volume1/out/f"), "0123456789");
  struct stat status;
  ASSERT_EQ(stat("/volume1/out/f", &status), 0);
  EXPECT_EQ(status.st_uid, 5001u);
  EXPECT_EQ(Names(kRegistry), std::set<std::string>());
  EXPECT_EQ(Names("/volume1/@tmp"), std::set<std::string>());
}

TEST_F(SliceUpload, APlantedRecordNamesNothing) {
  const std::string id = Send("0-3/10", "0123", "", mona_).substr(4);
  const std::string passwd = Read("/etc/passwd");
  ASSERT_EQ(VLIBCFileSetKeyValue((kRegistry + "/" + id).c_str(), id.c_str(), "/etc/passwd"), 0);
  EXPECT_EQ(Send("4-6/10", "456", id, mona_), "-9 -1");
  EXPECT_EQ(Read("/etc/passwd"), passwd);
}

}  // namespace
