// What a function writes to a standard stream, caught in a temporary file.
#pragma once
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>

inline std::string captured(FILE *s, const std::function<void()> &fn)
{
    char path[] = "/tmp/cap-XXXXXX", buf[4096];
    int tmp = mkstemp(path), saved = dup(fileno(s));
    unlink(path);
    fflush(s), dup2(tmp, fileno(s));
    fn();
    fflush(s), dup2(saved, fileno(s)), close(saved);
    std::string out;
    for (ssize_t n, off = 0; (n = pread(tmp, buf, sizeof(buf), off)) > 0; off += n)
        out.append(buf, (size_t)n);
    close(tmp);
    return out;
}
