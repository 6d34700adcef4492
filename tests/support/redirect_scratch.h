// redirect_scratch.h - scratch folders and state guards for the redirect tests.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ombrix.h"

namespace testfs {

// The names in a folder (without "." and "..").
inline std::vector<std::string> folderEntries(const std::string& path) {
    std::vector<std::string> out;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") out.push_back(e->d_name);
        closedir(d);
    }
    return out;
}

// A fresh folder under /tmp, removed (with its files) at the end.
struct ScratchDir {
    std::string path;
    ScratchDir() {
        char tmpl[] = "/tmp/ombrix_redirect_XXXXXX";
        const char* p = mkdtemp(tmpl);
        path = p ? p : "";
    }
    ~ScratchDir() {
        for (auto& n : entries()) unlink((path + "/" + n).c_str());
        rmdir(path.c_str());
    }
    std::vector<std::string> entries() const { return folderEntries(path); }
};

// Restores the calling thread's and the process-wide redirect tables, the
// temporary folder and the temporary-file options at the end of a test.
struct StateGuard {
    TEMPFILEOPTIONS saved{};
    StateGuard() { K_GetTempFileOptions(&saved, TEMPFILEOPTIONS_SIZE); }
    ~StateGuard() {
        for (int processWide : {0, 1}) {
            REDIRECTRECORD r{};
            r.uStructSize = REDIRECTRECORD_SIZE;
            K_SetRedirectFunctions(&r, REDIRECT_SET_RESET, processWide);
        }
        K_SetTempDirectoryUtf8(nullptr);
        K_SetTempFileOptions(&saved);
    }
};

// Open descriptors of this process.
inline int openFdCount() { return int(folderEntries("/proc/self/fd").size()); }

}  // namespace testfs
