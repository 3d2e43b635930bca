// White space as the C locale has it, spelled out so that no locale setting
// can change what a file means and no run pays for setting the locale up.
#pragma once
#include <string>
#include <string_view>

inline bool isCSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// text without the white space at either end.
inline std::string trimmed(std::string_view text) {
    size_t first = 0, end = text.size();
    while (end > first && isCSpace(text[end - 1]))
        end--;
    while (first < end && isCSpace(text[first]))
        first++;
    return std::string(text.substr(first, end - first));
}
