/// \file texts.h
/// Marks of fields that are not localized: clients know them by these words. Not
/// for programs.
#ifndef ZEM_FORMS_TEXTS_H
#define ZEM_FORMS_TEXTS_H

namespace zem {

inline constexpr char kFieldNotPresent[] = "The field is not present.";
inline constexpr char kFieldNotValid[] = "The field is not valid.";

}  // namespace zem

#endif  // ZEM_FORMS_TEXTS_H
