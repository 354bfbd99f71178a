// What the programs have in common beside the library: the headers of private
// answers, the two shapes of an answer, and where a request may come from.
#ifndef ZEM_PROGRAMS_PROGRAM_H
#define ZEM_PROGRAMS_PROGRAM_H

#include <json/value.h>
#include <webman/webman.h>

#include <string>

namespace program {

/// Whether the request's method changes things: POST. GET and HEAD never do, in
/// any program, whatever action they ask for.
bool IsPost();

/// Whether the request comes from a page of this site, or from a client that is no
/// browser. Browsers say where a request comes from, and a page of another site
/// cannot change what they say. For requests before a login, which no token guards.
bool IsFromThisSite();

/// What the client sent as `name`: a member of the JSON document, or a parameter.
/// Empty when it is missing, no text, or holds a NUL byte: the platform would see but
/// what stands before it.
std::string Field(WebMan& request, const char* name);

/// The document that the client sent as `name`: a member of the JSON document, of any
/// kind, or a parameter whose text is JSON. \return false when there is none.
bool Document(WebMan& request, const char* name, Json::Value& document);

/// Whether a document that a user stores is of a size that is kept: 1 MiB as text.
bool FitsDocument(const Json::Value& document);

/// Whether the text is well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates,
/// nothing above U+10FFFF.
bool IsUtf8(const char* text);

/// Queues the headers of answers that are for this caller alone.
void QueuePrivateHeaders(WebMan& request);

/// Answers {"success": true, "data": ...}.
void AnswerSuccess(WebMan& request, const Json::Value& data);

/// Answers {"success": false, "errinfo": {"sec", "key"}}, and "data" when there is any.
void AnswerFailure(WebMan& request, const char* section, const char* key,
                   const Json::Value& data = Json::Value());

}  // namespace program

#endif  // ZEM_PROGRAMS_PROGRAM_H
