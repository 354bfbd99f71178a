/// \file url.h
/// Addresses of this server and of others, its names in the network, and names of accounts as
/// people type them.
#ifndef ZEM_WEBUTILS_URL_H
#define ZEM_WEBUTILS_URL_H

#include <webutils/export.h>

#include <string>

namespace WebUtils {

/// The address of this server by which the request came (HTTP_HOST), with another scheme and
/// port. One dot at the end of the host's name is dropped, in HTTP_HOST too, which then ends
/// there; else that is as before. The host is what the client sent: it must not be trusted where
/// it would matter.
/// \param url gets "https://host:port" or "http://host:port"; as it was after a failure.
/// \param port is written as it is; null counts as empty.
/// \return false, logged, outside of a request.
ZEM_EXPORT bool GetURLByProtocol(std::string& url, bool https, const char* port);

/// Takes the scheme, the host and the port out of an address that begins with "http://" or
/// "https://", in lower case. A host in brackets keeps them (RFC 3986, section 3.2.2). Without a
/// port it is the scheme's, "80" or "443"; nothing is checked further: user names before the
/// host and ports that are none come out as they stand.
/// \return false for an empty text, the results as they were; and for another scheme or a
///     bracket that is not closed, the results empty, or with what was found by then.
ZEM_EXPORT bool ParseURL(const std::string& url, std::string& scheme, std::string& host,
                         std::string& port);

/// Percent-encodes all but the unreserved characters of RFC 3986, section 2.3. Empty for null.
ZEM_EXPORT std::string EncodeURL(const char* text);

/// The host name of this machine; empty, logged, when it has none.
ZEM_EXPORT std::string GetServerName();

/// The realm of the Active Directory domain that this machine has joined, or the workgroup of
/// any other Windows network; empty when it has joined none. At most 63 bytes.
ZEM_EXPORT std::string GetDomainName();

/// Whether TCP ports are taken by others than this service: reserved, declared by a service, or
/// listened on. The service "http" has the ports of "http_extra" too, while the key "addport" of
/// the system's configuration is "yes".
/// \param first, last the range, both in it. Both 0, or the first above the last: no conflict.
/// \return false too when it cannot be told.
ZEM_EXPORT bool IsPortConflict(const char* service, int first, int last);

/// The name of the account that a user means by what was typed at a login: converted by the
/// platform, "dns.domain\name" as "DOMAIN\name", letters as the account has them.
/// \param size of the output in bytes, NUL included; a longer name is cut.
/// \return 0, also when there is no such account: the output then holds what was typed, for a
///     name of a domain what the platform left there, and that is logged; 1, logged, for a null
///     argument or a size of 0.
ZEM_EXPORT int ParseInputUserName(const char* input, char* output, unsigned int size);

/// Whether a name is one of a Windows domain: it holds a backslash. Of a directory: an "@".
/// Nothing else is looked at.
ZEM_EXPORT bool IsDomainObject(const std::string& name);
ZEM_EXPORT bool IsLDAPObject(const std::string& name);

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_URL_H
