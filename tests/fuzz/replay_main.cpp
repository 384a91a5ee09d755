// Replays files through a fuzz target without libFuzzer: every argument is a
// file or a directory whose regular files are each one input. Built with the
// normal compiler so that the corpora run as ordinary regression tests.
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

static bool read_file(const std::string &path, std::vector<uint8_t> &out)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (!f)
        return false;
    out.clear();
    uint8_t buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        out.insert(out.end(), buf, buf + n);
    fclose(f);
    return true;
}

static void collect(const std::string &path, std::vector<std::string> &files)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return;
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return;
    }
    DIR *d = opendir(path.c_str());
    if (!d)
        return;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const auto &n : names)
        collect(path + "/" + n, files);
}

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++)
        collect(argv[i], files);
    if (files.empty()) {
        fprintf(stderr, "replay: no input files\n");
        return 1;
    }
    std::vector<uint8_t> data;
    for (const auto &f : files) {
        if (!read_file(f, data)) {
            fprintf(stderr, "replay: cannot read %s\n", f.c_str());
            return 1;
        }
        fprintf(stderr, "replay: %s (%zu bytes)\n", f.c_str(), data.size());
        // Copied so that an over-read past the input is caught under ASan.
        std::vector<uint8_t> copy(data);
        LLVMFuzzerTestOneInput(copy.empty() ? nullptr : copy.data(), copy.size());
    }
    fprintf(stderr, "replay: %zu inputs done\n", files.size());
    return 0;
}
