// cmd_storage.cpp - `ombrix storage`: memory thresholds, the process-wide cap
// and counter, and a demonstration of the storage kinds at work (an image
// larger than the configured cap living in tiles and temporary files, filled
// and verified row by row). Also registered as an info and a demo section.
#include <cinttypes>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

namespace {

std::string bytesText(int64_t v) {
    char buf[64];
    if (v == INT64_MAX) return "unlimited";
    if (v >= (int64_t(1) << 20))
        std::snprintf(buf, sizeof buf, "%" PRId64 " bytes (%.1f MiB)", v, double(v) / (1 << 20));
    else
        std::snprintf(buf, sizeof buf, "%" PRId64 " bytes", v);
    return buf;
}

const char* kindText(uint32_t t) {
    switch (t) {
        case 1: return "single block";
        case 2: return "caller memory";
        case 4: return "tiles";
        case 128: return "temporary file";
        case 512: return "run-compressed rows";
        case 1024: return "super-compressed rows";
        default: return "?";
    }
}

void printInfo() {
    int32_t keep = 0, largest = 0, tile = 0, fourth = 0, fifth = 0;
    K_GetMemoryThresholds(&keep, &largest, &tile, &fourth, &fifth);
    int64_t cap = 0, counter = 0, room = 0;
    K_ManageMemory(MANAGEMEMORY_GET_CAP, 0, &cap);
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter);
    K_ManageMemory(MANAGEMEMORY_GET_ROOM, 0, &room);
    GLOBALMEMORYTHRESHOLDS g{GLOBALMEMORYTHRESHOLDS_SIZE, 0};
    K_GetGlobalMemoryThresholds(&g);
    auto pct = [](int32_t v, const char* of) {
        char b[96];
        if (v < 0)
            std::snprintf(b, sizeof b, "%d%% of %s", -v, of);
        else
            std::snprintf(b, sizeof b, "%d bytes", v);
        return std::string(b);
    };
    std::printf("storage:\n");
    std::printf("  default memory type       %u\n", K_GetDefaultMemoryType());
    std::printf("  memory to keep free       %s\n", pct(keep, "total memory").c_str());
    std::printf("  largest one-block image   %s\n", pct(largest, "available memory").c_str());
    std::printf("  tile size                 %s\n", tile > 0 ? bytesText(tile).c_str() : "16 MiB (default)");
    std::printf("  fourth / fifth thresholds %d / %d (file-backed tiles %s)\n", fourth, fifth,
                fifth > 0 ? "allowed" : "off");
    std::printf("  process largest image     %s\n",
                g.nLargestImage ? bytesText(g.nLargestImage).c_str() : "none");
    std::printf("  conventional-memory cap   %s\n", cap ? bytesText(cap).c_str() : "none");
    std::printf("  conventional memory held  %s\n", bytesText(counter).c_str());
    std::printf("  room under the cap        %s\n", bytesText(room).c_str());
    std::printf("  temporary-file mode       %d\n", K_GetTempFileMode());
}

// Rows filled with a pattern of (row, byte); padding bits stay clear.
void patternRow(const BITMAPRECORD* bm, int32_t r, std::vector<uint8_t>& row) {
    const uint64_t bits = uint64_t(bm->nWidth) * uint64_t(bm->nBitsPerPixel);
    for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t((size_t(r) * 131 + i * 7) ^ (i >> 5));
    for (uint64_t b = bits; b < uint64_t(row.size()) * 8; ++b) row[b >> 3] &= uint8_t(~(0x80u >> (b & 7)));
}
bool fill(BITMAPRECORD* bm) {
    std::vector<uint8_t> row(bm->nBytesPerLine);
    for (int32_t r = 0; r < bm->nHeight; ++r) {
        patternRow(bm, r, row);
        if (K_PutBitmapRow(bm, row.data(), r, bm->nBytesPerLine) != int32_t(bm->nBytesPerLine)) return false;
    }
    return true;
}
bool verify(BITMAPRECORD* bm) {
    std::vector<uint8_t> row(bm->nBytesPerLine), got(bm->nBytesPerLine);
    for (int32_t r = 0; r < bm->nHeight; ++r) {
        patternRow(bm, r, row);
        if (K_GetBitmapRow(bm, got.data(), r, bm->nBytesPerLine) != int32_t(bm->nBytesPerLine)) return false;
        if (got != row) return false;
    }
    return true;
}
bool fillAndVerify(BITMAPRECORD* bm) { return fill(bm) && verify(bm); }

std::string describe(const BITMAPRECORD& bm) {
    uint32_t type = 0;
    uint64_t tileSize = 0;
    int32_t tiles = 0, onDisk = 0;
    K_GetBitmapMemoryInfo(&bm, &type, &tileSize, &tiles, &onDisk);
    char buf[200];
    if (type == 4)
        std::snprintf(buf, sizeof buf, "%s: %d tiles of %s, %d of them in temporary files", kindText(type), tiles,
                      bytesText(int64_t(tileSize)).c_str(), onDisk);
    else
        std::snprintf(buf, sizeof buf, "%s", kindText(type));
    return buf;
}

bool demo(cli::Report& rep, const BITMAPRECORD&) {
    int64_t oldCap = 0, counter = 0;
    K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &counter);
    const int64_t cap = counter + (int64_t(8) << 20);
    K_ManageMemory(MANAGEMEMORY_SET_CAP, cap, &oldCap);
    int32_t keep, largest, tile, fourth, fifth;
    K_GetMemoryThresholds(&keep, &largest, &tile, &fourth, &fifth);
    K_SetMemoryThresholds(0, 0, 4 << 20, 0, 0, MEMTHRESHOLD_TILE_SIZE);
    rep.line("cap on conventional memory set to 8 MiB above what is held, tiles of 4 MiB");

    BITMAPRECORD bm;
    int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 4000, 3000, 24, ORDER_BGR, nullptr,
                                TOP_LEFT, nullptr, 0);
    rep.check(rc == KS_SUCCESS, "4000 x 3000 x 24 (34 MiB) created under the cap: " +
                                    (rc == KS_SUCCESS ? describe(bm) : cli::statusText(rc)));
    if (rc == KS_SUCCESS) {
        int64_t held = 0;
        K_ManageMemory(MANAGEMEMORY_GET_COUNTER, 0, &held);
        rep.check(held <= cap, "conventional memory held stays under the cap");
        rep.check(fillAndVerify(&bm), "every row written and read back");
        K_FreeBitmap(&bm);
    }
    BITMAPRECORD one;
    rc = K_InitBitmap(&one, BITMAPRECORD_SIZE, 4000, 3000, 24);
    rc = rc == KS_SUCCESS ? K_AllocateBitmap(&one, MEMTYPE_CONVENTIONAL | MEMTYPE_NO_TILES | MEMTYPE_NO_DISK) : rc;
    rep.check(rc == KS_MEMORY_CAP_EXCEEDED, "the same image as one block only: " + cli::statusText(rc));
    K_ManageMemory(MANAGEMEMORY_SET_CAP, oldCap, nullptr);
    K_SetMemoryThresholds(0, 0, tile, 0, 0, MEMTHRESHOLD_TILE_SIZE);

    struct Case {
        uint32_t type;
        int32_t bpp;
        const char* what;
    } cases[] = {{MEMTYPE_NO_CONVENTIONAL, 24, "1000 x 800 x 24 in a temporary file"},
                 {MEMTYPE_COMPRESSED, 1, "2550 x 3300 x 1 as run-compressed rows"},
                 {MEMTYPE_SUPERCOMPRESSED, 8, "1000 x 800 x 8 as super-compressed rows"},
                 {MEMTYPE_SUPERCOMPRESSED, 24, "1000 x 800 x 24 as super-compressed rows"}};
    for (const Case& c : cases) {
        const int32_t w = c.bpp == 1 ? 2550 : 1000, h = c.bpp == 1 ? 3300 : 800;
        rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, c.type, w, h, c.bpp, ORDER_BGR, nullptr, TOP_LEFT, nullptr, 0);
        bool ok = rc == KS_SUCCESS && fillAndVerify(&bm);
        rep.check(ok, std::string(c.what) + ": " + (rc == KS_SUCCESS ? describe(bm) : cli::statusText(rc)));
        if (rc == KS_SUCCESS) {
            // Conversion keeps the pixels.
            rc = K_SetBitmapMemoryInfo(&bm, MEMTYPE_CONVENTIONAL, 0);
            bool same = rc == KS_SUCCESS && verify(&bm);
            rep.check(same, "  converted to one block, pixels kept");
            K_FreeBitmap(&bm);
        }
    }
    return rep.failures == 0;
}

int run(const cli::Call& call) {
    const cli::Args& args = call.args;
    if (args.empty() || args[0] == "info") {
        printInfo();
        return 0;
    }
    if (args[0] == "demo") {
        cli::Report rep;
        BITMAPRECORD sample{};
        bool ok = demo(rep, sample);
        std::printf("%d checks, %d failed\n", rep.checks, rep.failures);
        return ok ? 0 : 1;
    }
    std::fprintf(stderr, "usage: ombrix storage [info|demo]\n");
    return 2;
}

cli::RegisterCommand reg({"storage", "[info|demo]", "memory thresholds, cap and counter; storage kinds demo", run, {}, 0, 1});
cli::RegisterInfo info({"storage", 30, printInfo});
cli::RegisterDemo demoSection({"storage", 30, demo});

}  // namespace
