/// \file webutils.h
/// Everything of the namespace `WebUtils`.
#ifndef ZEM_WEBUTILS_WEBUTILS_H
#define ZEM_WEBUTILS_WEBUTILS_H

#include <webutils/cache.h>
#include <webutils/json_store.h>
#include <webutils/string_bundle.h>
#include <webutils/system_info.h>
#include <webutils/template.h>
#include <webutils/text.h>
#include <webutils/url.h>

#endif  // ZEM_WEBUTILS_WEBUTILS_H
