/// \file webman.h
/// The request object that every program of the web administration interface
/// builds at its start.
#ifndef ZEM_WEBMAN_WEBMAN_H
#define ZEM_WEBMAN_WEBMAN_H

#include <json/value.h>
#include <vemo/cgi.h>
#include <webutils/export.h>

#include <string>

/// What a request says about its browser.
struct _tag_vemo_browser_info_ {
  int type;          ///< one of `vemo_browser_type`
  char version[32];  ///< digits and dots, ended by a NUL byte
};

/// Kinds of browsers.
enum vemo_browser_type {
  VEMO_BROWSER_IE = 1,  ///< Internet Explorer, and Edge 12
  VEMO_BROWSER_FIREFOX = 2,
  VEMO_BROWSER_SAFARI = 3,
  VEMO_BROWSER_CHROME = 4,
  VEMO_BROWSER_FACEBOOK = 5,  ///< the crawler that makes previews of links
  VEMO_BROWSER_OTHER = 6,
  VEMO_BROWSER_NONE = 7  ///< the request names none
};

/// One request: its parameters and cookies, the caller's session and rights,
/// and the only way by which a program writes its answer.
///
/// A process answers one request, so it builds one WebMan, keeps it until it
/// ends, and uses it from one thread.
///
/// \code
///   int main() {
///     WebMan request(true);
///     if (!request.IsAuthorized(nullptr, 1, VEMOCGI_POS_DESKTOP)) return 0;
///     Json::Value answer;
///     answer["hello"] = request.GetLoginUserName();
///     request.WriteHeader("text/plain; charset=\"UTF-8\"");
///     request.WriteBody(answer);
///   }
/// \endcode
///
/// **Input.** The parameter line (the query string of GET and HEAD, else the
/// body) is offered to the JSON reader first. When it is JSON, it is read
/// through `In()` alone; only otherwise it is decoded as URL-encoded parameters
/// and read through `In(name, default)`. What counts as JSON is what the reader
/// accepts, and the reader stops after the first value: the form line `1=2`
/// is the JSON number 1, and its parameters are not decoded. A form whose first
/// field has a name that begins with a letter other than those of `true`,
/// `false` and `null` is never taken for JSON.
///
/// **Output.** Queue headers, `WriteHeader` once, `WriteBody` once. Standard
/// output is written directly: print nothing else in between.
///
/// Failures are logged to the system log at error priority as "webman".
class ZEM_EXPORT WebMan {
 public:
  /// Makes the process the leader of a new process session, starts the platform's
  /// request context and reads the cookies; with `loadInput` the parameters too.
  /// Never fails visibly: a request without parameters has none.
  ///
  /// \param loadInput false: the program calls `LoadIn()` itself before it reads
  ///     parameters, as a program does that receives uploads.
  explicit WebMan(bool loadInput);
  ~WebMan();
  WebMan(const WebMan&) = delete;
  WebMan& operator=(const WebMan&) = delete;

  /// \name Input
  /// Texts that are returned belong to the request object; a default that is
  /// returned is the caller's own pointer.
  /// @{

  /// Reads the request's parameters, once.
  /// \return false when they were read before, or when the request has no
  ///     parameter line (none sent, a body that is too short, or one over 8 MiB).
  bool LoadIn();

  /// Parses `line` as a JSON document into the JSON input; comments in the text
  /// are kept with their values.
  /// \return whether it is JSON. When it is not, or nests deeper than 1,000
  ///     levels, or `line` is null, the JSON input is null afterwards.
  bool LoadJSONParam(char* line);

  /// The JSON input, or null when there is none or it is empty (`{}`, `[]`, a
  /// number, a string). Owned by the request object; a program may change it.
  Json::Value* In();

  /// The value of the URL-encoded or multipart parameter `name`, or
  /// `defaultValue`. A request with non-empty JSON input has no such parameters:
  /// it gives `defaultValue` for every name, also for one that is a member of
  /// the document, so that a program never mixes the two kinds unknowingly.
  const char* In(const char* name, const char* defaultValue);

  /// The value of the cookie `name`, names compared exactly, or `defaultValue`.
  const char* GetCookie(const char* name, const char* defaultValue);

  /// Reads the cookies again from the environment's HTTP_COOKIE.
  void UpdateCookiesHash();

  /// The language of the user interface for this request: three letters, for
  /// example "enu". Never null. Ask after the authorization: a session id given
  /// as a parameter replaces the request's cookies, and the language with them.
  const char* GetUILanguage();

  /// The whole file `path` in a buffer that ends with a NUL byte.
  /// \param maxSize the largest size in bytes that is read.
  /// \return a buffer that the caller frees with free(); null on failure, logged,
  ///     and for a file of more than `maxSize` bytes, not logged.
  static char* szReadFile(const char* path, int maxSize);
  /// @}

  /// \name Output
  /// @{

  /// Queues a header line. \return false when the platform refuses it: a name
  /// that is no token, a value with control characters.
  bool AddHeader(const char* name, const char* value);

  /// Queues "Content-type" and prints all queued headers and the blank line.
  /// \return false when the content type is refused (nothing is printed then),
  ///     when headers were printed before, or when standard output fails.
  bool WriteHeader(const char* contentType);

  /// Prints `body` as indented JSON text, members in name order, as it is: no
  /// envelope, no prefix. \return true always.
  bool WriteBody(Json::Value& body);

  /// The content type of answers that are written without one: the refusal of
  /// `IsAuthorized`. `text/plain; charset="UTF-8"` until it is set.
  void SetDefaultContentType(const char* contentType);

  /// Prints the answer 404 Not Found, without a body and not to be stored, and
  /// ends the process with exit status 0.
  [[noreturn]] static void ResponseNotFound();

  /// Prints a redirect to `url` with the headers that are queued.
  /// \return false, nothing printed, when the URL holds control characters.
  bool Redirect(const char* url);

  /// Queues a "Location" header with an absolute URL on the host that the client
  /// asked for (HTTP_HOST as it was sent, port included). The scheme is https
  /// when HTTPS is "on" or HTTP_X_FORWARDED_PROTO is "https", case ignored.
  /// \param path the path; one leading slash is removed and one put before it.
  /// \return false for a null path, a request without a host, a refused header.
  bool AddRedirectHeader(const char* path);

  /// Queues the security headers of a page, "Content-Security-Policy" and
  /// "X-Frame-Options", as the policies and the system's settings say; call it before
  /// `WriteHeader`. \param page the id of a page that runs on its own, null or "" for all
  /// others.
  void AddSecurityHeaders(const char* page);

  /// Queues a Set-Cookie header for a cookie that ends with the browser.
  /// \param first the cookie's path (null or "": "/").
  /// \param second its name. \param third its value.
  /// \return whether the platform accepted it.
  bool AddCookieToHeader(const char* first, const char* second, const char* third);
  /// @}

  /// \name Login and logout
  /// Each login returns the platform's result: 1 success, 0 internal fault,
  /// -1 wrong name or password, -2 account disabled or expired, -3 one-time code
  /// needed, -4 one-time code wrong or used before, -5 too many failures, -6
  /// token of the single sign-on refused. On 1, and only then, the session is
  /// made, its cookie queued, and the user name recorded (cut at 492 bytes).
  /// @{
  int Login(_tag_login_params* params);
  /// Password and one-time code.
  int LoginWithOTPAuth(_tag_login_params* params, const char* otpCode);
  /// \param flag whether `params->nonce` is required.
  int LoginWithAzureSSOAuth(_tag_login_params* params, const char* token, bool flag);
  /// \param flag whether `params->nonce` is required.
  int LoginWithOIDCSSOAuth(_tag_login_params* params, const char* token, bool flag);
  /// A session without a proof of identity, for programs that have made sure of
  /// it otherwise. The user name is not recorded.
  int LoginNoAuth(_tag_login_params* params);
  /// Checks a login without making a session, for asking the password again.
  /// The user name is not recorded. \param text a one-time code, or null.
  int LoginTest(_tag_login_params* params, const char* text);
  /// Ends the session of this request. \return whether there was one.
  bool Logout();
  /// @}

  /// \name Authorization
  /// @{

  /// Asks the platform whether the caller may run the program, and records the
  /// user name when so. A session id in the parameter "_sid" is taken in place of
  /// the request's cookies, for the rest of the process.
  /// \param privilege 0 any session, 1 any logged-in user, 2 administrators.
  /// \param flag true: a poll, which does not count as use of the session.
  /// \return 1 or more: yes. 0 internal fault, -1 no such session or expired, -2
  ///     no privilege, -3 replaced by a newer login, -5 no session, or a wrong or
  ///     missing anti-forgery token, -8 another client address.
  int CheckAuthorized(int privilege, _tag_cgi_position position, bool flag);

  /// The same, and answers a refused request itself: with a redirect to
  /// `redirectUrl` when one is given, else with the header "x-request-error"
  /// (timeout, noprivilege, relogin, unauth, errorip, system) and the document
  /// `{"errno": {"key", "section"}, "items": [], "success": false, "total": 0}`.
  /// \return true: go on. false: the answer is written, print nothing more.
  bool IsAuthorized(const char* redirectUrl, int privilege, _tag_cgi_position position);

  /// Whether the login user is an administrator. False, and logged, when the
  /// platform cannot tell.
  bool IsAdmin() const;

  /// The user of the last successful login or authorization, else empty.
  std::string GetLoginUserName() const;
  /// @}

  /// \name Session
  /// @{

  /// The session's anti-forgery token, empty without a session.
  /// \param refresh read the cookies again first, as after a login.
  std::string GetVemoToken(bool refresh);
  /// Whether requests must carry the token (configuration key "enable_token").
  bool IsTokenEnable();
  /// The cookie "id", or null. It is a secret: never print or log it.
  const char* GetSessionID();
  /// The path of the session's file, or null without a session.
  const char* GetSessionFilePath();
  /// The same into a buffer of `size` bytes. \return 0; -1 when there is none or
  ///     it does not fit.
  int GetSessionFilePath(char* buffer, int size);
  /// The path of the session's lock file, or null without a session.
  const char* GetLockFile();
  /// Whether the client's address is left unchecked. Set it before
  /// `CheckAuthorized` or `IsAuthorized`.
  void SetSkipCheckIP(bool skip);
  /// Removes sessions by a handle, a user name or an address, or all of the
  /// account but this one. \return whether any was removed.
  bool RemoveSessionByIndex(CURRENT_USER_INDEX index, const char* name);
  /// Calls `match` with each session record, borrowed, and `data`, and removes
  /// those for which it returns TRUE. The record holds a public handle in place
  /// of the id; a match that never returns TRUE lists the sessions.
  /// \return the number removed; -1 on failure.
  int RemoveSessionByFunc(BOOL (*match)(json_object* record, void* data), void* data);

  /// Whether the request comes by a shared link: it has a sharing id (the header
  /// X-Vemo-Sharing as it is, else the parameter "_sharing_id" without a pair of
  /// quotes around it) and the cookie "sharing_sid". Both are set in any case.
  bool IsSharingRequest(std::string& sharingId, std::string& sharingSid);

  /// Marks the request as one of the default user, for the rest of the process.
  void SetLoginedDefaultUser();
  bool IsLoginedDefaultUser();
  /// @}

  /// \name Settings
  /// JSON documents of the login user and of the administrators, kept through
  /// `WebUtils::LoadJsonFile` and `WebUtils::SaveJsonFile`; their limits hold here.
  /// @{

  /// The login user's preference directory, without a slash at the end; "/tmp" when
  /// the platform knows none, so that the path is never empty.
  std::string GetPreferenceDir();
  /// The same for a group.
  std::string GetGroupPreferenceDir(const char* group);

  /// Reads the login user's settings, from the file "usersettings", and into their
  /// member "BackgroundTask" the background tasks, from the file "bkgtask". The member
  /// is there afterwards in any case, an empty object where there are none. A document
  /// that is no object is dropped for one.
  /// \return whether "usersettings" was read; a missing "bkgtask" is no failure.
  bool loadUserJsonSettings(Json::Value& settings);

  /// Stores the login user's settings: the member "BackgroundTask", when there is one,
  /// in "bkgtask", as the user that the process acts as; the rest in "usersettings", as
  /// root where the process may. The two stay apart because the tasks change often and
  /// by the user's own processes.
  /// \param settings loses its member "BackgroundTask".
  /// \return whether every file was opened for writing.
  bool saveUserJsonSettings(Json::Value& settings);

  /// Reads and stores the settings that the administrators share. \return false, and
  /// no file is touched, for a login user who is no administrator.
  bool loadGroupJsonSettings(Json::Value& settings);
  bool saveGroupJsonSettings(Json::Value& settings);

  /// The time of the last change of a group's settings, in seconds since the epoch.
  /// \return false, and `mtime` as it was, when there are none; any other reason is
  ///     logged.
  bool getGrpJsonSettingMtime(const char* group, unsigned long long& mtime);

  /// Documents that a module keeps for the login user, each under a name.
  bool IsModuleDataExist(const char* name);
  /// \return false, and `data` as it was, when there is none or it cannot be read.
  bool ReadModuleData(const char* name, Json::Value& data);
  /// \return whether it was stored; when not, what was there before still is.
  bool WriteModuleData(const char* name, Json::Value& data);
  /// \return true when it was removed, false when there was none.
  bool RemoveModuleData(const char* name);
  /// @}

  /// \name Identity
  /// A program starts as root, and acts as the login user once the request is
  /// authorized, so that the kernel checks every file for that user. Members of the
  /// group "administrators" act as user 0, with their own group. The group is switched
  /// before the user. Each returns 0, or -1, logged to the authorization log, and the
  /// process keeps what it has reached: give up then.
  /// @{

  /// The effective group of a session's user. What setegid() says is not looked at.
  static int SetEGid(const char* sessionId, const char* user);
  /// The effective user. What seteuid() says is not looked at.
  static int SetEUid(const char* sessionId, const char* user);
  /// Supplementary groups, effective group and effective user of the login user; can
  /// be taken back. Supplementary groups that cannot be set are logged only.
  int setEUGID();
  /// The same for good: the real and saved ids too.
  int setUGID();
  /// @}

  /// \name Uploads
  /// A program that receives files builds `WebMan(false)`, checks the caller, then calls
  /// `LoadIn(directory)` for the body, `LoadUploadParams` for what stands beside the files,
  /// and one of the `LoadUploadFile` calls for each file. A file stays in the spool
  /// directory of a volume until it is stored, and is gone when it never is.
  ///
  /// A large file may come in slices, a request each. The first makes a file that grows in
  /// the spool directory; the program gives it an id nobody can guess, records both with
  /// `SaveSliceUploadTmpFile`, and answers the id. The client sends it as the header
  /// X-Tmp-File with every further slice, by which `LoadIn(nullptr)` finds the file again.
  /// With the last slice the file can be stored, and the record is deleted.
  ///
  /// Results below 0: -2 no room, -9 any other failure, -12 volume cannot be used, -13 no
  /// volume, -20 broken body, -21 the client is gone, -22 a slice that does not follow the
  /// one before.
  /// @{

  /// Whether the request carries an upload (multipart/form-data).
  bool IsUploadRequest();
  /// Whether it carries a slice of a file (Content-Range), and whether that is the last.
  bool IsSliceUploadRequest();
  bool IsSliceUploadFinish();

  /// Chooses the spool directory: "@tmp" on the volume with most room.
  /// \param path gets the directory's path, cut to `size` bytes, the NUL byte counted.
  /// \param needed KiB that must be free.
  /// \return false for a null `path` or a `size` below 1; when the volumes cannot be asked,
  ///     logged; and when none will do, with the reason recorded: VEMOERR_VOLUME_FULL,
  ///     VEMOERR_VOLUME_UNUSABLE or VEMOERR_NO_VOLUME.
  bool FindUploadTmpPath(char* path, int size, unsigned long long needed);

  /// Receives the body of the upload, once, in constant memory.
  /// \param directory where the files wait; one on the volume of their destination saves a
  ///     copy. null: the growing file of a slice that goes on, else the directory that
  ///     `FindUploadTmpPath` chooses, with room for at least 1 MiB.
  /// \return 0 or more: received; negative as above, logged.
  int LoadIn(const char* directory);

  /// Records under which id a slice's growing file is found by later requests.
  /// \param sliceId a file name: not empty, without '/' and '=', neither "." nor "..", and
  ///     without what a configuration key must not hold.
  /// \return false for a null argument, an id that is refused, or a registry that cannot be
  ///     written or is not root's.
  bool SaveSliceUploadTmpFile(const char* sliceId, const char* tmpPath);

  /// Deletes the record of the id in the request's header X-Tmp-File; the file stays.
  /// \return false without the header, without such a record, for an id that leads out of
  ///     the registry, and when it cannot be deleted, logged.
  bool DeleteSliceUploadTmpFile();

  /// The path of the slice's growing file: one that this process has made, else the one that
  /// is recorded for the header X-Tmp-File. Null: there is none. The text is valid until the
  /// next call.
  const char* GetSliceUploadTmpFile();

  /// Makes the parameters beside the files readable by `In(name, default)`; the field of a
  /// file reads as the name that the client gives it, without directories. Never use that
  /// name unchecked. \return their number, or negative as above.
  int LoadUploadParams(VEMOUPLOADCALLBACK callback, VEMOUPLOADPROGRESS* progress);

  /// Stores the next file as `dest`, whole or not at all, as the user that the process acts
  /// as.
  /// \param callback called with the bytes done and the total; may be null.
  /// \param progress gets the same, may be null. Its `state` VEMOUPLOAD_NEW asks that a file
  ///     that is there is not replaced: -9 then, and errno is EEXIST.
  /// \return 1 stored; 0 there is no further file, or it is not whole yet; negative as
  ///     above.
  int LoadUploadFile(const char* dest, VEMOUPLOADCALLBACK callback, VEMOUPLOADPROGRESS* progress);
  /// The same, held to a bandwidth. \param limit a row of /etc/vemo/bandwidth.conf.
  int LoadUploadFileBW(const char* dest, VEMOUPLOADCALLBACK callback, VEMOUPLOADPROGRESS* progress,
                       const char* limit);
  /// Writes the next file over the start of `dest`, and cuts it then.
  /// \param keep returns how many bytes stay, negative for all; may be null.
  int LoadUploadFileNoTruncate(const char* dest, VEMOUPLOADCALLBACK callback,
                               VEMOUPLOADPROGRESS* progress, VEMOUPLOADKEEP keep);

  /// The size in bytes of the file that is stored next; of a slice, also a refused one, how
  /// much of the file is there, which is where the next slice begins. -1: there is none.
  long long GetUploadFileSize();

  /// Whether the client has hung up during the transfer.
  bool RecvHup();
  /// @}

  /// \name Browser
  /// What the request's User-Agent header claims, for statistics and for rules of style: never
  /// a ground for a right.
  /// @{

  /// Tells the browser's kind and version. The first that occurs decides, in the order Internet
  /// Explorer ("MSIE"), Firefox, Chrome, Safari, the crawler, and only then the words
  /// "Trident/7.0" (version 11) and "Edge/12.0" (version 12): a browser that also claims to be
  /// Chrome is Chrome. Other browsers have an empty version.
  /// \return 0; -1, logged, when no digit follows the name, and when the version has 32 bytes
  ///     or more (the first 31 are there). -1 for null. Without a User-Agent the version is
  ///     left as it was.
  int GetBrowserInfo(_tag_vemo_browser_info_* info);

  /// The rule of style by which Internet Explorer 5.5 and 6 show transparent images; empty for
  /// any other browser.
  std::string GetIEPNGFixStyle();
  /// @}

 private:
  static constexpr int kUserNameSize = 493;     // bytes, NUL included
  static constexpr int kLoginReasonSize = 122;  // bytes, NUL included

  int RecordLogin(int result, const _tag_login_params* params);
  void TakeSessionIdParameter();
  void WriteRefusal(int code);
  int SwitchIdentity(int (*setGroup)(const char*, const char*),
                     int (*setUser)(const char*, const char*));

  bool loaded_;
  VEMOCGI context_;
  Json::Value json_input_;
  char user_name_[kUserNameSize];
  std::string default_content_type_;
};

#endif  // ZEM_WEBMAN_WEBMAN_H
