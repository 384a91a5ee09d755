// Replays a corpus through a fuzz target without libFuzzer: every file (sorted)
// of the directories named is one input.
#include <dirent.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;   // the files of the directories named
    for (int i = 1; i < argc; i++)
        if (DIR *d = opendir(argv[i])) {
            for (struct dirent *e; (e = readdir(d));)
                if (e->d_name[0] != '.')
                    files.push_back(std::string(argv[i]) + "/" + e->d_name);
            closedir(d);
        }
    std::sort(files.begin(), files.end());
    for (const auto &f : files) {
        FILE *fp = fopen(f.c_str(), "rb");
        std::vector<uint8_t> data;   // exact size: an over-read is caught under ASan
        for (int c; fp && (c = fgetc(fp)) != EOF;)
            data.push_back((uint8_t)c);
        if (!fp || fclose(fp) != 0) {
            fprintf(stderr, "replay: cannot read %s\n", f.c_str());
            return 1;
        }
        LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    }
    fprintf(stderr, "replay: %zu inputs done\n", files.size());
    return files.empty();
}
