// settings.h - the per-thread settings block.
//
// Each thread gets its own block on first use, allocated through the kernel
// allocator and released when the thread ends. A thread whose block cannot
// be made reads and writes one process-wide block instead (which starts all
// zero, so getters map zero to the documented defaults where needed).
//
// Families add their fields in their own section below.
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {

struct ThreadSettings {
    // -- bitmap record defaults ------------------------------------------
    int32_t nXResolution = 150;
    int32_t nYResolution = 150;
    int32_t nDitheringMethod = 0;

    // -- progress callbacks ------------------------------------------------
    STATUSCALLBACK pfnStatus = nullptr;
    void* pStatusUser = nullptr;
    STATUSCALLBACK pfnCopyStatus = nullptr;
    void* pCopyStatusUser = nullptr;

    // -- palettes ----------------------------------------------------------
    const uint32_t* pUserMatchTable = nullptr;

    // -- storage: memory type and thresholds --------------------------------
    uint32_t uDefaultMemoryType = 1;
    int32_t nMemKeepFree = 0;
    int32_t nMemLargestImage = 0x7FFFFFFF;
    int32_t nMemTileSize = 0;
    int32_t nMemFourth = -100;
    int32_t nMemFifth = 1;

    // -- storage: redirected I/O and temporary files ------------------------
    // The calling thread's redirect table: all zero at thread start (every
    // slot empty: the process-wide table applies). uStructSize stays 0.
    REDIRECTRECORD redirect{};
    // The calling thread's temporary folder, UTF-8, terminated; empty means
    // the default ($TMPDIR, else /tmp).
    char tempDir[1024] = {};
    // (@@settings-redirect@@)

    // -- storage: memory (more) ---------------------------------------------
    // (@@settings-memory@@)

    // -- pixels: conversion -------------------------------------------------
    // (@@settings-convert@@)

    // -- pixels: dithering --------------------------------------------------
    // (@@settings-dither@@)

    // -- regions -----------------------------------------------------------
    // (@@settings-regions@@)

    // -- runtime -----------------------------------------------------------
    // (@@settings-runtime@@)
};

// The calling thread's block (or the process-wide fallback). Never null.
ThreadSettings& settings() noexcept;
// The process-wide fallback block.
ThreadSettings& processSettings() noexcept;

namespace testhook {
// Makes settings() behave as if the per-thread block could not be made,
// for the calling thread only (used to test the fallback).
void forceSettingsFallback(bool on) noexcept;
}

}  // namespace krn
