// Helpers for reading what the daemon prints.
#pragma once
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>

// What `fn` writes to a standard stream, caught in a temporary file.
inline std::string captured(FILE *s, const std::function<void()> &fn)
{
    char path[] = "/tmp/cap-XXXXXX";
    int tmp = mkstemp(path), saved = dup(fileno(s));
    unlink(path);
    fflush(s);
    dup2(tmp, fileno(s));
    fn();
    fflush(s);
    dup2(saved, fileno(s));
    close(saved);
    std::string out;
    char buf[4096];
    for (ssize_t n, off = 0; (n = pread(tmp, buf, sizeof(buf), off)) > 0; off += n)
        out.append(buf, (size_t)n);
    close(tmp);
    return out;
}

inline testing::AssertionResult Has(const std::string &text, const std::string &part)
{
    if (text.find(part) != std::string::npos)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << part << "\" not in:\n" << text;
}
