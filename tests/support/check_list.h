// check_list.h - a list of (result, expected) pairs, made in the order written (a braced list is evaluated left to
// right) and compared at once, each reported with its line: for sequences of calls whose statuses and values are the
// point of the test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>

namespace checklist {
struct Item {
    int64_t got, want;
    int line;
};
inline void expectAll(std::initializer_list<Item> items) {
    for (const Item& i : items) EXPECT_EQ(i.got, i.want) << "the check on line " << i.line;
}
}  // namespace checklist

#define IS(got, want) ::checklist::Item{int64_t(got), int64_t(want), __LINE__}
