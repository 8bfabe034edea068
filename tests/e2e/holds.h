// A check of the whole-run tests: a text that holds a part.
#ifndef FMRI_REM_E2E_HOLDS_H
#define FMRI_REM_E2E_HOLDS_H

#include <gtest/gtest.h>

#include <string>

// Whether text holds part; the failure message shows the whole text.
inline testing::AssertionResult holds(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

#endif
