#include "support/assertion_text.h"

#include "common/am_assert.h"

// Runs `action` and returns what() of the AMAssertException it throws, if any.
std::string AssertionText(const std::function<void()>& action) {
    try {
        action();
    } catch (const AMAssertException& e) {
        return e.what();
    }
    return "";
}
