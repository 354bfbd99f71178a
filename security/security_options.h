/// \file security_options.h
/// The security headers of a page.
#ifndef ZEM_SECURITY_SECURITY_OPTIONS_H
#define ZEM_SECURITY_SECURITY_OPTIONS_H

#include <json/value.h>
#include <webutils/export.h>

#include <string>

namespace VEMO::ZEM {

/// Computes "Content-Security-Policy" (CSP Level 3) and "X-Frame-Options" (RFC 7034) for
/// one answer, from the policies that `CspRule` generates, the request and the system's
/// settings. Programs call `WebMan::AddSecurityHeaders`. Failures are logged as
/// "security_options".
///
/// Settings: "csp_header_option" and "check_frame_options" ("yes", also when missing)
/// switch the two on; "frame_options_built_in_allow_url" lists, with commas and no blanks,
/// the origins that may frame pages ("https://portal.lan", or "portal.lan" for any scheme
/// and port).
///
/// A policy with frame-ancestors overrules X-Frame-Options in browsers: leave that
/// directive out of rules where the list is to decide.
class ZEM_EXPORT SecurityOptions {
 public:
  /// \param name the page that runs on its own; null or "": all others.
  explicit SecurityOptions(const char* name);

  /// The policy's text: each directive, its sources and ";", with a blank after each, also
  /// after one without sources, of which nothing else is seen. "{HOSTNAME}" is the host
  /// that the client asked for, without its port. The policies are generated when they are
  /// not there. \return empty when it is switched off or fails: send no header then.
  std::string GetCSPHeader();

  /// \return "SAMEORIGIN"; empty, for no header, when it is switched off or the page that
  ///     led here is of an origin that may frame this one.
  std::string GetXFrameOption();

  /// Both, as members named like the headers; null when there is none.
  Json::Value GetSecurityHeaders();

 private:
  bool LoadPolicy(Json::Value& policy);

  std::string name_;
};

}  // namespace VEMO::ZEM

#endif  // ZEM_SECURITY_SECURITY_OPTIONS_H
