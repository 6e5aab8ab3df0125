// File-name patterns with the DOS wildcards.
#pragma once

#include "onedrive4b/export.h"

/// Whether `name` as a whole matches `expression`; false when either is null. In the expression
///   - `*` is any run of characters;
///   - `?` is exactly one character;
///   - `"` is a dot if one comes next, else nothing;
///   - `<` is any run up to, but not including, the last remaining dot; any run if no dot remains;
///   - `>` is one character other than a dot, or a dot that is not the name's last; at the last dot
///     it is nothing.
///
/// With `ignoreCase` other characters are compared in upper case, by the current C locale. The
/// running time grows with the product of the two lengths, for every pattern. Callable from any
/// thread.
ONEDRIVE4B_EXPORT bool IsNameInExpression(const wchar_t* expression, const wchar_t* name,
                                          bool ignoreCase);
ONEDRIVE4B_EXPORT bool IsNameInExpressionA(const char* expression, const char* name,
                                           bool ignoreCase);
