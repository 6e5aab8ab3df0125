// File-name patterns with the DOS wildcards.
#pragma once

#include "onedrive4b/export.h"

/// Whether `name` as a whole matches `expression`; false when either is null. In the expression
///   - `*` is any run of characters;
///   - `?` is exactly one character;
///   - `"` is a dot if one comes next, else nothing;
///   - `<` is any run up to, not including, the last dot that is left; any run when none is left;
///   - `>` is one character other than a dot, or a dot that is not the name's last; at the last dot
///     it is nothing.
///
/// With `ignoreCase` other characters are compared in upper case, as the C locale in force has it.
/// Time grows with the product of the two lengths, whatever the pattern. Callable from any thread.
ONEDRIVE4B_EXPORT bool IsNameInExpression(const wchar_t* expression, const wchar_t* name,
                                          bool ignoreCase);
ONEDRIVE4B_EXPORT bool IsNameInExpressionA(const char* expression, const char* name,
                                           bool ignoreCase);
