// posix_regex.h - test helper: whole-text matching with a POSIX extended
// regular expression (regcomp/regexec), returning the captured groups.
#ifndef MANAGER_SVC_TESTS_POSIX_REGEX_H
#define MANAGER_SVC_TESTS_POSIX_REGEX_H

#include <regex.h>

#include <string>
#include <vector>

// True when `pattern` matches all of `text`; `groups` then holds group 1
// onwards (empty text for a group that took no part).
inline bool full_match(const std::string& text, const std::string& pattern,
                       std::vector<std::string>* groups = nullptr) {
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED) != 0) {
        return false;
    }
    std::vector<regmatch_t> matches(compiled.re_nsub + 1);
    bool matched = regexec(&compiled, text.c_str(), matches.size(), matches.data(), 0) == 0;
    if (matched && groups != nullptr) {
        groups->clear();
        for (std::size_t i = 2; i < matches.size(); ++i) {
            groups->push_back(matches[i].rm_so < 0
                                  ? std::string()
                                  : text.substr(matches[i].rm_so,
                                                matches[i].rm_eo - matches[i].rm_so));
        }
    }
    regfree(&compiled);
    return matched;
}

#endif
