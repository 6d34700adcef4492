// fuzz_redirect_buffer.cpp - the memory buffer file driven by opens, reads, writes, seeks, size changes and
// closes against a plain model: a byte vector and one position (the files open on a buffer share it, each
// open puts it back at 0). Input: byte 0 flags (bit 0 REDIRECTBUF_FIXED), bytes 1-2 initial size, byte 3
// growth step, then operations (selector byte and operands). Every read, write (plain or big), seek and size
// is the model's, and so is the content handed out at the end; a file's own table is the buffer's.
#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "ombrix.h"

namespace {

struct Model {
    std::vector<uint8_t> data;
    uint64_t cap = 0, pos = 0;  // the capacity of a fixed buffer, the shared position
    bool fixed = false;
};
constexpr uint64_t kFar = uint64_t(1) << 40;  // a growable buffer refuses to grow that far (-1)

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    fuzzinput::Input in{data, size};
    const uint32_t flags = in.byte() & 1u, initial = in.u16(), grow = uint32_t(in.byte()) * 16u;
    Model m{{}, initial, 0, (flags & REDIRECTBUF_FIXED) != 0};

    HREDIRECTBUFFER buf = nullptr;
    HREDIRECTFILE first = nullptr;
    FUZZ_CHECK(K_StartRedirectToBuffer(&buf, &first, flags, nullptr, initial, grow) == KS_SUCCESS);
    REDIRECTRECORD table{REDIRECTRECORD_SIZE};
    FUZZ_CHECK(K_GetRedirectBufferTable(buf, &table) == KS_SUCCESS);
    wchar_t name[512];
    FUZZ_CHECK(K_MakeRedirectName(&table, L"buffer", name, 512) == KS_SUCCESS);
    const std::string name8(name, name + std::wcslen(name));  // the same name in UTF-8 (it is ASCII)

    std::vector<HREDIRECTFILE> files{first};
    std::vector<uint8_t> scratch;
    for (int ops = 0; in.more() && ops < 256; ++ops) {
        const uint8_t sel = in.byte();
        if (files.empty() && (sel & 7) != 5) continue;
        const size_t which = files.empty() ? 0 : in.byte() % files.size();
        HREDIRECTFILE h = files.empty() ? nullptr : files[which];
        uint64_t& pos = m.pos;
        switch (sel & 7) {
            case 0: {  // write from the input
                const uint32_t n = in.byte() * ((sel >> 3) + 1u);
                scratch.assign(n, 0);
                for (uint32_t k = 0; k < n; ++k) scratch[k] = in.byte();
                const int64_t got = sel & 0x40 ? K_RedirectedWriteBig(h, scratch.data(), n)
                                               : K_RedirectedWrite(h, scratch.data(), n);
                uint64_t end = pos + n;
                const bool refused = !m.fixed && n && end >= kFar;  // a growable buffer refuses to grow that far
                if (m.fixed && end > m.cap) end = m.cap > pos ? m.cap : pos;
                FUZZ_CHECK(got == (refused ? -1 : int64_t(end - pos)));
                if (refused || end == pos) break;  // (nothing written: a far position stays where it is)
                if (end > m.data.size()) m.data.resize(end, 0);
                std::memcpy(m.data.data() + pos, scratch.data(), end - pos), pos = end; break;
            }
            case 1: {  // read
                const uint32_t n = in.byte() * ((sel >> 3) + 1u);
                scratch.assign(n + 1, 0x5A);
                const int64_t got = sel & 0x40 ? K_RedirectedReadBig(h, scratch.data(), n)
                                               : K_RedirectedRead(h, scratch.data(), n);
                const uint64_t k = std::min<uint64_t>(pos < m.data.size() ? m.data.size() - pos : 0, n);
                FUZZ_CHECK(got == int64_t(k) && scratch[n] == 0x5A);
                FUZZ_CHECK(k == 0 || std::memcmp(scratch.data(), m.data.data() + pos, k) == 0), pos += k; break;
            }
            case 2: {  // seek, sometimes far or before the start
                const int32_t origin = in.byte() % 4;  // 3 is not an origin
                const int64_t off = int64_t(int16_t(in.u16())) * (sel & 0x80 ? int64_t(1) << 47 : 1);
                const int64_t base = origin ? int64_t(origin == REDIRECT_SEEK_CUR ? pos : m.data.size()) : 0;
                const int64_t got = K_RedirectedSeek(h, off, origin);
                int64_t to = 0;
                const bool bad = origin > 2 || __builtin_add_overflow(base, off, &to) || to < 0;
                FUZZ_CHECK(got == (bad ? -1 : to));
                if (!bad) pos = uint64_t(got);
                break;
            }
            case 3: FUZZ_CHECK(K_RedirectedGetSize(h) == int64_t(m.data.size())); break;
            case 4: {  // set the size through the table (extends with zeros)
                const uint64_t s = in.u16();
                void* native = nullptr;
                REDIRECTRECORD own{REDIRECTRECORD_SIZE};
                FUZZ_CHECK(K_ExtractRedirectedFileHandle(h, &native, 0) == KS_SUCCESS);
                FUZZ_CHECK(K_ExtractRedirectFunctions(h, &own) == KS_SUCCESS && own.pfnSetSize == table.pfnSetSize);
                FUZZ_CHECK(own.pSetSizeUserData == table.pSetSizeUserData && K_UpdateRedirectFunctions(h, &own) == 1);
                const int32_t got = table.pfnSetSize(native, int64_t(s), table.pSetSizeUserData);
                FUZZ_CHECK(got == (m.fixed && s > m.cap ? -1 : 0));
                if (got == 0) m.data.resize(s, 0);
                break;
            }
            case 5: {  // open another file on the buffer through the name
                if (files.size() >= 4) break;
                const uint32_t mode = REDIRECT_OPEN_READWRITE | ((sel & 8) ? REDIRECT_OPEN_TRUNCATE : 0u);
                HREDIRECTFILE nf = sel & 0x10 ? K_RedirectedOpenUtf8(name8.c_str(), mode, 0)
                                              : K_RedirectedOpen(name, mode, 0);
                FUZZ_CHECK(reinterpret_cast<void*>(nf) != OMBRIX_INVALID_FILE);
                if (mode & REDIRECT_OPEN_TRUNCATE) m.data.clear();
                files.push_back(nf), pos = 0; break;
            }
            case 6: {  // close; with files still open the buffer refuses to end
                FUZZ_CHECK(K_RedirectedClose(h) == 0), files.erase(files.begin() + ptrdiff_t(which));
                if (!files.empty()) FUZZ_CHECK(K_StopRedirectToBuffer(buf, nullptr, nullptr) == KS_INVALID_PARAMETER);
                break;
            }
            case 7: {  // the content so far
                const void* p = nullptr;
                uint64_t n = 0;
                FUZZ_CHECK(K_GetRedirectBufferData(buf, &p, &n) == KS_SUCCESS && n == m.data.size());
                FUZZ_CHECK(n == 0 || std::memcmp(p, m.data.data(), n) == 0); break;
            }
        }
    }
    for (HREDIRECTFILE h : files) FUZZ_CHECK(K_RedirectedClose(h) == 0);
    HGLOBAL out = nullptr;
    uint64_t outSize = ~uint64_t(0);
    FUZZ_CHECK(K_StopRedirectToBuffer(buf, &out, &outSize) == KS_SUCCESS && outSize == m.data.size());
    FUZZ_CHECK((out == nullptr) == m.data.empty() && (!out || std::memcmp(out, m.data.data(), m.data.size()) == 0));
    K_GlobalFree(out);  // (null is no block)
    // The ended buffer is no longer live.
    FUZZ_CHECK(K_GetRedirectBufferData(buf, nullptr, nullptr) == KS_INVALID_PARAMETER);
    return 0;
}
