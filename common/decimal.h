// decimal.h - reads a decimal number the way the daemon reads every number
// it is given (command-line values, ports in the registry file). Stateless.
#ifndef MANAGER_SVC_DECIMAL_H
#define MANAGER_SVC_DECIMAL_H

#include <climits>
#include <cstdlib>

// strtol in base 10 without an end pointer: leading blanks and a sign are
// taken, reading stops at the first other character ("80abc" reads 80),
// and a text without digits reads 0. The value is held to the range of int,
// as strtol's own saturation does on the 32-bit device, so every target
// reads the same numbers.
inline int read_decimal_int(const char* text) {
    long value = strtol(text, nullptr, 10);
    if (value > INT_MAX) {
        return INT_MAX;
    }
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

#endif
