// redirect_scratch.h - scratch folders and state guards for the redirect tests.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ombrix.h"

namespace testfs {

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
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        if (DIR* d = opendir(path.c_str())) {
            while (dirent* e = readdir(d)) {
                std::string n = e->d_name;
                if (n != "." && n != "..") out.push_back(n);
            }
            closedir(d);
        }
        return out;
    }
};

// Restores the calling thread's redirect table, temporary folder and the
// process-wide temporary-file options at the end of a test.
struct StateGuard {
    TEMPFILEOPTIONS saved{};
    StateGuard() { K_GetTempFileOptions(&saved, TEMPFILEOPTIONS_SIZE); }
    ~StateGuard() {
        REDIRECTRECORD r{};
        r.uStructSize = REDIRECTRECORD_SIZE;
        K_SetRedirectFunctions(&r, REDIRECT_SET_RESET, 0);
        r.uStructSize = REDIRECTRECORD_SIZE;
        K_SetRedirectFunctions(&r, REDIRECT_SET_RESET, 1);
        K_SetTempDirectoryUtf8(nullptr);
        K_SetTempFileOptions(&saved);
    }
};

// Open descriptors of this process.
inline int openFdCount() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
}

}  // namespace testfs
