/// \file faults.h
/// Boundary calls in the hands of a test, for answers that no file, account or
/// mount can provoke, and to see with what arguments a call was made.
///
/// Each call of `wrapped_calls.inc` is wrapped when a test program is linked. As
/// long as its hook is empty, the call goes to the real host platform.
///
/// \code
///   faults::hooks.VemoCgiIsAuthorized = [](auto...) { return -4; };
/// \endcode
#ifndef ZEM_TESTS_FAULTS_FAULTS_H
#define ZEM_TESTS_FAULTS_FAULTS_H

#define OPENSSL_SUPPRESS_DEPRECATED
#include <dirent.h>
#include <grp.h>
#include <openssl/md5.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <vemo/acl.h>
#include <vemo/cgi.h>
#include <vemo/core.h>
#include <vemo/ea.h>
#include <vemo/fs.h>
#include <vemo/mail.h>
#include <vemo/share.h>

#include <functional>

namespace faults {

/// Results that are pointers, in one word for the build, which reads the list too.
using char_ptr = char*;
using dirent_ptr = dirent*;
using szlist_ptr = VEMOSZLIST*;

struct Hooks {
#define ZEM_HOOK(result, name, parameters, arguments) std::function<result parameters> name;
#include "faults/wrapped_calls.inc"
#undef ZEM_HOOK
};

/// The hooks of this process; a test case is a process of its own, so nothing
/// has to be put back.
extern Hooks hooks;

/// What a hook calls that lets some of the calls pass.
#define ZEM_HOOK(result, name, parameters, arguments) extern "C" result __real_##name parameters;
#include "faults/wrapped_calls.inc"
#undef ZEM_HOOK

}  // namespace faults

#endif  // ZEM_TESTS_FAULTS_FAULTS_H
