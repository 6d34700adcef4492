// The interpolating resamplers against a plain double-precision filter (a direct weighted sum with clamped edges), plus
// invariants and path agreement.

#include "krn/common/resize.h"
#include "transform_kit.h"

namespace {

struct Img {
    int32_t w, h, c;
    std::vector<double> v;  // c samples per pixel, canonical order B, G, R, A
    double& at(int32_t x, int32_t y, int32_t k) { return v[(size_t(y) * w + x) * c + k]; }
    double at(int32_t x, int32_t y, int32_t k) const { return v[(size_t(y) * w + x) * c + k]; }
};

struct Fmt { int32_t bpp, order, channels; double max; };
const Fmt kGrey{8, ORDER_GRAY, 1, 255}, kColour{24, ORDER_BGR, 3, 255};
const Fmt kFormats[] = {{8, ORDER_GRAY, 1, 255},   {12, ORDER_GRAY, 1, 4095}, {16, ORDER_GRAY, 1, 65535},
                        {24, ORDER_BGR, 3, 255},   {24, ORDER_RGB, 3, 255},   {32, ORDER_BGR, 4, 255},
                        {48, ORDER_BGR, 3, 65535}, {64, ORDER_BGR, 4, 65535}};

// Where sample k of pixel x sits in a row (index arithmetic of our own): 12-bit pairs through pixelAt, otherwise
// samples of one or two bytes, low byte first, red first for the RGB order.
uint8_t* sampleAt(uint8_t* row, const Fmt& f, int32_t x, int32_t k) {
    const int32_t sb = f.bpp / 8 / f.channels, pos = (f.order == ORDER_RGB && k < 3) ? 2 - k : k;
    return row + (size_t(x) * f.channels + pos) * sb;
}
Img blank(int32_t w, int32_t h, int32_t c) { return Img{w, h, c, std::vector<double>(size_t(w * h * c))}; }
void putImage(BITMAPRECORD* bm, const Img& im, const Fmt& f) {
    tkit::RefImage ref(im.w, im.h, f.bpp);
    for (size_t i = 0; i < im.v.size(); ++i) {
        const int32_t x = int32_t(i / size_t(f.channels)) % im.w, y = int32_t(i / size_t(f.channels) / size_t(im.w));
        const uint32_t v = uint32_t(std::lround(im.v[i]));
        uint8_t* q = sampleAt(ref.row(y), f, x, int32_t(i % size_t(f.channels)));
        if (f.bpp == 12) tkit::setPixel(ref.row(y), x, 12, v);
        else q[0] = uint8_t(v), q[f.max > 255] = uint8_t(f.max > 255 ? v >> 8 : v);
    }
    ASSERT_EQ(tkit::putImage(bm, ref), KS_SUCCESS);
}
Img getImage(BITMAPRECORD* bm, const Fmt& f) {
    Img im = blank(bm->nWidth, bm->nHeight, f.channels);
    tkit::RefImage ref = tkit::getImage(bm);
    for (size_t i = 0; i < im.v.size(); ++i) {
        const int32_t x = int32_t(i / size_t(f.channels)) % im.w, y = int32_t(i / size_t(f.channels) / size_t(im.w));
        const uint8_t* q = sampleAt(ref.row(y), f, x, int32_t(i % size_t(f.channels)));
        im.v[i] = f.bpp == 12 ? double(tkit::pixelAt(ref.row(y), x, 12)) : f.max > 255 ? q[0] + 256.0 * q[1] : q[0];
    }
    return im;
}
// A single-block bitmap holding `im`.
struct Made : tkit::Bitmap {
    Made(const Fmt& f, const Img& im) : Bitmap(im.w, im.h, f.bpp, f.order) { putImage(&bm, im, f); }
};

Img randomImage(int32_t w, int32_t h, const Fmt& f, uint32_t seed) {
    std::mt19937 rng(seed);
    Img im = blank(w, h, f.channels);
    for (int32_t y = 0; y < h; ++y)  // smooth blobs plus noise, so both flat and busy areas are seen
        for (int32_t x = 0; x < w; ++x)
            for (int32_t k = 0; k < f.channels; ++k) {
                const double noise = (int(rng() % 1000) - 500) * 3e-4;
                const double s = 0.5 + 0.35 * std::sin(0.3 * x + k) * std::cos(0.2 * y - k) + noise;
                im.at(x, y, k) = std::round(std::clamp(s, 0.0, 1.0) * f.max);
            }
    return im;
}

enum class Method { Resample, Cubic, Lanczos };

// Weights of source index j for target index i, unnormalised, any j (edges clamp later).
double weight(Method m, int32_t oldN, int32_t newN, int32_t i, int32_t j) {
    const double s = double(oldN) / newN;
    if (m == Method::Resample && newN < oldN) {  // area: overlap of [i s, (i+1) s) with [j, j+1)
        const double lo = std::max(i * s, double(j)), hi = std::min((i + 1) * s, double(j + 1));
        return hi > lo ? hi - lo : 0.0;
    }
    const double t = std::fabs((j + 0.5 - (i + 0.5) * s) / (m == Method::Resample ? 1.0 : std::max(1.0, s)));
    if (m == Method::Resample) return t < 1 ? 1 - t : 0;
    if (m == Method::Cubic) return t < 1 ? (1.5 * t - 2.5) * t * t + 1 : t < 2 ? ((-0.5 * t + 2.5) * t - 4) * t + 2 : 0;
    return t >= 3 ? 0 : t == 0 ? 1 : 3 * std::sin(M_PI * t) * std::sin(M_PI * t / 3) / (M_PI * M_PI * t * t);
}

Img reference(const Img& src, int32_t nw, int32_t nh, Method m, double maxv) {
    auto table = [&](int32_t oldN, int32_t newN) {
        std::vector<std::vector<double>> t(size_t(newN), std::vector<double>(size_t(oldN), 0.0));
        for (int32_t i = 0; i < newN; ++i) {
            double sum = 0;
            for (int32_t j = -oldN - 8; j < 2 * oldN + 8; ++j) {
                const double wgt = weight(m, oldN, newN, i, j);
                t[size_t(i)][size_t(std::clamp(j, 0, oldN - 1))] += wgt;
                sum += wgt;
            }
            for (auto& x : t[size_t(i)]) x /= sum;
        }
        return t;
    };
    const auto wx = table(src.w, nw), wy = table(src.h, nh);
    Img out = blank(nw, nh, src.c);
    for (int32_t y = 0; y < nh; ++y)
        for (int32_t x = 0; x < nw; ++x)
            for (int32_t k = 0; k < src.c; ++k) {
                double acc = 0;
                for (int32_t sy = 0; sy < src.h; ++sy) {
                    const double a = wy[size_t(y)][size_t(sy)];
                    if (a == 0) continue;
                    for (int32_t sx = 0; sx < src.w; ++sx) acc += a * wx[size_t(x)][size_t(sx)] * src.at(sx, sy, k);
                }
                out.at(x, y, k) = std::clamp(acc, 0.0, maxv);
            }
    return out;
}

int32_t run(BITMAPRECORD* bm, int32_t w, int32_t h, Method m, uint32_t extra = 0) {
    return m == Method::Cubic ? K_BicubicResampleBitmap(bm, w, h, extra)
                              : K_ResampleBitmap(bm, w, h, extra | (m == Method::Lanczos ? SIZE_LANCZOS : 0));
}

double maxDiff(const Img& a, const Img& b) {
    double d = 0;
    for (size_t i = 0; i < a.v.size(); ++i) d = std::max(d, std::fabs(a.v[i] - b.v[i]));
    return d;
}

const char* name(Method m) { return m == Method::Resample ? "resample" : m == Method::Cubic ? "bicubic" : "lanczos"; }

// Random images within one level of the reference filter (whole-factor area reductions within rounding); constant
// images come back exactly constant.
TEST(Resample, MatchesDoublePrecisionFilterWithinOneLevel) {
    const int32_t sizes[][4] = {{17, 13, 40, 29}, {40, 30, 13, 9}, {24, 16, 8, 40}, {9, 31, 9, 7}, {30, 20, 45, 30},
                                {30, 20, 15, 10}, {36, 24, 12, 8}, {30, 20, 6, 4}, {21, 17, 50, 7}, {21, 17, 3, 40},
                                {21, 17, 23, 23}};
    for (const Fmt& f : kFormats)
        for (Method m : {Method::Resample, Method::Cubic, Method::Lanczos})
            for (const auto& s : sizes) {
                const int32_t ow = s[0], oh = s[1], nw = s[2], nh = s[3];
                SCOPED_TRACE(::testing::Message() << name(m) << " bpp " << f.bpp << " order " << f.order << " " << ow
                                                  << "x" << oh << "->" << nw << "x" << nh);
                const Img src = randomImage(ow, oh, f, uint32_t(f.bpp * 7 + nw));
                Img flat = blank(ow, oh, f.channels), flatWant = blank(nw, nh, f.channels);
                for (Img* im : {&flat, &flatWant})
                    for (size_t i = 0; i < im->v.size(); ++i)
                        im->v[i] = std::round(f.max * (0.2 + 0.2 * double(i % size_t(f.channels))));
                Made b(f, src), c(f, flat);
                ASSERT_EQ(run(&b.bm, nw, nh, m) | run(&c.bm, nw, nh, m), KS_SUCCESS);
                ASSERT_EQ(b.bm.nBitsPerPixel, f.bpp);
                const bool blockMean = m == Method::Resample && ow % nw == 0 && oh % nh == 0 && nw < ow;
                EXPECT_LE(maxDiff(getImage(&b.bm, f), reference(src, nw, nh, m, f.max)), blockMean ? 0.5 + 1e-6 : 1.0);
                EXPECT_EQ(getImage(&c.bm, f).v, flatWant.v) << "constant";
            }
}

// Opaque red beside fully transparent green: premultiplied resampling gives no green anywhere; straight resampling does
// (so the test can fail).
TEST(Resample, PremultipliedAlphaLendsNoColourFromTransparentPixels) {
    for (const Fmt& f : {Fmt{32, ORDER_BGR, 4, 255}, Fmt{64, ORDER_BGR, 4, 65535}})
        for (Method m : {Method::Resample, Method::Cubic, Method::Lanczos})
            for (uint32_t flags : {0u, uint32_t(SIZE_PREMULTIPLY)}) {
                Img src = blank(16, 8, 4);
                for (int32_t y = 0; y < 8; ++y)
                    for (int32_t x = 0; x < 16; ++x) {
                        const bool opaque = (x + y / 2) % 5 < 2;  // green only where transparent
                        src.at(x, y, 1) = opaque ? 0 : f.max;
                        src.at(x, y, 2) = src.at(x, y, 3) = opaque ? f.max : 0;
                    }
                Made b(f, src);
                ASSERT_EQ(run(&b.bm, 37, 11, m, flags), KS_SUCCESS);
                const Img got = getImage(&b.bm, f);
                double green = 0;
                for (int32_t y = 0; y < 11; ++y)
                    for (int32_t x = 0; x < 37; ++x)
                        if (got.at(x, y, 3) > 0) green = std::max(green, got.at(x, y, 1));
                EXPECT_TRUE(flags ? green == 0 : green > f.max / 10) << name(m) << " " << f.bpp << " flags " << flags;
            }
}

// Palette images of every depth (3, 5, 6 and 7 bits cross bytes) go through their colours, into 24 bits or into a grey
// target (the weighted sum).
TEST(Resample, PaletteImagesGoThroughTheirColours) {
    for (int32_t bpp : {3, 4, 5, 6, 7}) {
        RGBQUAD pal[128];
        for (int i = 0; i < 128; ++i) pal[i] = RGBQUAD{uint8_t(i * 16), uint8_t(255 - i * 8), uint8_t(i * i), 0};
        tkit::Bitmap b(19, 11, bpp, 0, TOP_LEFT, pal), grey(30, 7, 8, ORDER_GRAY);
        Img colours = blank(19, 11, 3), greys = blank(19, 11, 1);
        tkit::RefImage idx = tkit::randomImage(19, 11, bpp, uint32_t(bpp));
        for (int32_t y = 0; y < 11; ++y)
            for (int32_t x = 0; x < 19; ++x) {
                const RGBQUAD& e = pal[tkit::pixelAt(idx.row(y), x, bpp)];
                colours.at(x, y, 0) = e.rgbBlue, colours.at(x, y, 1) = e.rgbGreen, colours.at(x, y, 2) = e.rgbRed;
                greys.at(x, y, 0) = (2.0 * e.rgbRed + 5.0 * e.rgbGreen + e.rgbBlue) / 8;
            }
        ASSERT_EQ(tkit::putImage(&b.bm, idx), KS_SUCCESS);
        ASSERT_EQ(K_BicubicResampleBitmapInt(&b.bm, &grey.bm, 0), KS_SUCCESS);
        EXPECT_LE(maxDiff(getImage(&grey.bm, kGrey), reference(greys, 30, 7, Method::Cubic, 255)), 1.0) << bpp;
        ASSERT_EQ(K_BicubicResampleBitmap(&b.bm, 30, 7, 0), KS_SUCCESS);
        ASSERT_EQ(b.bm.nBitsPerPixel, 24);
        EXPECT_LE(maxDiff(getImage(&b.bm, kColour), reference(colours, 30, 7, Method::Cubic, 255)), 1.0) << bpp;
    }
}

// What the format table leaves out, against the reference filter: 5-5-5 and 5-6-5 colour (within one step of the stored
// fields), rows wider than one 2,048-float chunk into a bottom-up destination (rows flipped), a reduction whose filter
// spans more than 4,096 source pixels.
TEST(Resample, SixteenBitColourWideFlippedRowsAndWideFilters) {
    for (int32_t order : {ORDER_BGR, ORDER_RGB565}) {
        const int gBits = order == ORDER_RGB565 ? 6 : 5;
        auto expand = [](uint32_t v, int bits) { return double(bits == 5 ? v << 3 | v >> 2 : v << 2 | v >> 4); };
        auto decode = [&](tkit::RefImage raw) {  // B, G, R widened to 8 bits
            Img im = blank(raw.width, raw.height, 3);
            for (int32_t i = 0; i < raw.width * raw.height; ++i) {
                const uint32_t v = tkit::le16(raw.row(i / raw.width), i % raw.width);
                im.v[size_t(i) * 3] = expand(v & 31, 5), im.v[size_t(i) * 3 + 2] = expand((v >> (5 + gBits)) & 31, 5);
                im.v[size_t(i) * 3 + 1] = expand((v >> 5) & ((1u << gBits) - 1), gBits);
            }
            return im;
        };
        tkit::RefImage raw = tkit::randomImage(23, 17, 16, uint32_t(order));
        tkit::Bitmap b(23, 17, 16, order);
        ASSERT_EQ(tkit::putImage(&b.bm, raw), KS_SUCCESS);
        ASSERT_EQ(K_BicubicResampleBitmap(&b.bm, 31, 11, 0), KS_SUCCESS);
        ASSERT_EQ(b.bm.nBitsPerPixel, 16);
        EXPECT_LE(maxDiff(decode(tkit::getImage(&b.bm)), reference(decode(raw), 31, 11, Method::Cubic, 255)), 9.0)
            << order;
    }
    const Img wide = randomImage(700, 5, kColour, 8);
    Made a(kColour, wide);
    for (auto [nw, nh] : {std::pair{800, 9}, {300, 3}}) {  // taller: rows in 2,048-float chunks; shorter: columns first
        tkit::Bitmap b(nw, nh, 24, ORDER_BGR, BOTTOM_LEFT);
        ASSERT_EQ(K_ResizeBitmap(&a.bm, &b.bm, SIZE_RESAMPLE), KS_SUCCESS);
        Img got = getImage(&b.bm, kColour), flipped = got;
        for (int32_t y = 0; y < nh; ++y)
            std::copy_n(got.v.begin() + (nh - 1 - y) * nw * 3, nw * 3, flipped.v.begin() + y * nw * 3);
        EXPECT_LE(maxDiff(flipped, reference(wide, nw, nh, Method::Resample, 255)), 1.0) << nw;
    }
    const Img line = randomImage(9000, 2, kGrey, 3);
    Made l(kGrey, line);
    ASSERT_EQ(run(&l.bm, 3, 1, Method::Lanczos), KS_SUCCESS);
    EXPECT_LE(maxDiff(getImage(&l.bm, kGrey), reference(line, 3, 1, Method::Lanczos, 255)), 1.0);
}

// The vector loops against the plain ones, all threads against one (every storage kind: the shared kinds test).
TEST(Resample, PlainLoopsAndThreadsAgree) {
    const Fmt f{32, ORDER_BGR, 4, 255};
    const Img src = randomImage(300, 200, f, 42);
    auto once = [&](bool plain, int32_t threads, Method m) {
        krn::resampletest::forcePlain(plain);
        krn::resampletest::setMaxThreads(threads);
        Made b(f, src);
        EXPECT_EQ(run(&b.bm, 451, 299, m), KS_SUCCESS);
        Img out = getImage(&b.bm, f);
        krn::resampletest::forcePlain(false);
        krn::resampletest::setMaxThreads(0);
        return out;
    };
    for (Method m : {Method::Resample, Method::Cubic, Method::Lanczos}) {
        EXPECT_LE(maxDiff(once(false, 1, m), once(true, 1, m)), 1.0) << "SIMD vs plain, " << name(m);
        EXPECT_EQ(maxDiff(once(false, 0, m), once(false, 1, m)), 0.0) << "threads, " << name(m);
    }
}

// A fixed 8-bit palette destination: each pixel is the entry nearest to the filtered colour (grey destinations:
// the palette test above).
TEST(Resample, IntoAPaletteDestination) {
    const Img src = randomImage(20, 20, kColour, 5), ref = reference(src, 10, 10, Method::Cubic, 255);
    Made a(kColour, src);
    tkit::Bitmap pal(10, 10, 8);
    BITMAPRECORD& p = pal.bm;
    ASSERT_EQ(K_ResizeBitmap(&a.bm, &p, SIZE_BICUBIC), KS_SUCCESS);
    tkit::RefImage idx = tkit::getImage(&p);
    for (int32_t y = 0; y < 10; ++y) {
        const uint8_t* row = idx.row(y);
        for (int32_t x = 0; x < 10; ++x) {
            auto dist = [&](const RGBQUAD& e) {
                const double dr = e.rgbRed - ref.at(x, y, 2), dg = e.rgbGreen - ref.at(x, y, 1);
                return dr * dr + dg * dg + (e.rgbBlue - ref.at(x, y, 0)) * (e.rgbBlue - ref.at(x, y, 0));
            };
            double best = 1e18;
            for (int32_t i = 0; i < 256; ++i) best = std::min(best, dist(p.pPalette[i]));
            // The nearest entry, up to the one-level rounding of the filtered colour.
            EXPECT_LE(dist(p.pPalette[row[size_t(x)]]), best + 6 * 255 + 3) << x << "," << y;
        }
    }
    EXPECT_EQ(K_BicubicResampleBitmapInt(&a.bm, nullptr, 0), KS_INVALID_BITMAP);
}

}  // namespace
