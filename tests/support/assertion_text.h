// The text of an assertion a piece of test code raises.
#pragma once

#include <functional>
#include <string>

// The text of the assertion `action` throws, or "" when it throws none.
std::string AssertionText(const std::function<void()>& action);
