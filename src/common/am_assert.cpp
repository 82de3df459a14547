#include "common/am_assert.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <vector>

void am_assert_do_throw(const char* format, ...) {
    std::vector<char> buffer(std::max<size_t>(g_max_log_message_size, 1));
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    va_end(args);
    throw AMAssertException(buffer.data());
}
