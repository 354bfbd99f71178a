/// \file vemo_conf.h
/// Read access to the appliance's system configuration.
#ifndef ZEM_WEBMAN_VEMO_CONF_H
#define ZEM_WEBMAN_VEMO_CONF_H

#include <vemo/cgi.h>
#include <webutils/export.h>

/// The system configuration, for code that needs no request object.
///
/// The current values ("Info") stand in `/etc/vemoinfo.conf`, the factory
/// defaults ("Def") in `/etc.defaults/vemoinfo.conf`: lines of key="value".
/// Both are read when the object is made. A current value that is missing does
/// *not* fall back to the factory default: ask `Def` for that one.
///
/// Strings that an operation returns belong to the object and live as long as
/// it does; a default that is returned is the caller's own pointer.
///
/// \code
///   VemoConf conf;
///   const int limit = conf.InfoInt("max_users", atoi(conf.Def("max_users", "16")));
///   if (conf.InfoCheckValue("userhome_enable", "yes", false)) { ... }
/// \endcode
class ZEM_EXPORT VemoConf {
 public:
  /// Reads both files. A file that cannot be read has no keys; there is no
  /// error report.
  VemoConf();
  ~VemoConf();
  VemoConf(const VemoConf&) = delete;
  VemoConf& operator=(const VemoConf&) = delete;

  /// The current value of `key`, or `defaultValue` when the key is missing.
  const char* Info(const char* key, const char* defaultValue);

  /// The current value of `key` as a base-10 integer, read as strtol does:
  /// leading blanks and a sign are allowed, what follows the digits is ignored,
  /// so a value that is no number is 0. Numbers outside the 32-bit range become
  /// the nearest end of it. `defaultValue` only when the key is missing.
  int InfoInt(const char* key, int defaultValue);

  /// The factory default of `key`, or `defaultValue` when the key is missing.
  const char* Def(const char* key, const char* defaultValue);

  /// Whether the current value of `key` equals `value` without regard to case;
  /// `whenMissing` when the key has no value; false, whatever `whenMissing`
  /// says, when `key` or `value` is null.
  bool InfoCheckValue(const char* key, const char* value, bool whenMissing);

  /// The same against the factory default.
  bool DefCheckValue(const char* key, const char* value, bool whenMissing);

 private:
  VEMOCGI context_;
};

#endif  // ZEM_WEBMAN_VEMO_CONF_H
