// Whole-text wildcard matching: '*' any run of characters, '?' one
// character. The loader's value rules and the tool's find share it.
#ifndef QV_INTERNAL_QVWILDCARD_H
#define QV_INTERNAL_QVWILDCARD_H

namespace qvtext {

inline bool wildcardMatch(const char* pattern, const char* text) {
    const char* star = nullptr;
    const char* resume = nullptr;
    while (*text != '\0') {
        if (*pattern == '*') {
            star = pattern++;
            resume = text;
        } else if (*pattern == '?' || *pattern == *text) {
            ++pattern;
            ++text;
        } else if (star != nullptr) {
            pattern = star + 1;
            text = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == '*') ++pattern;
    return *pattern == '\0';
}

}  // namespace qvtext

#endif  // QV_INTERNAL_QVWILDCARD_H
