// KString: trimming, formatting, comparison, growth across the inline buffer,
// and allocation failures.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <string>
#include <utility>

#include "fault_harness.h"

namespace {

std::string Str(const KString& s) { return std::string(s.c_str(), s.length()); }

TEST(kstring, Trim) {
    const struct {
        const char* in;
        const char* left;
        const char* right;
        const char* both;
    } cases[] = {
        {"", "", "", ""},
        {"   ", "", "", ""},
        {"x", "x", "x", "x"},
        {" \t\r\nx y\n\r\t ", "x y\n\r\t ", " \t\r\nx y", "x y"},
        {"\vx\f", "\vx\f", "\vx\f", "\vx\f"},  // only space, tab, CR and LF are blanks
        {"  a long text past the inline buffer  ", "a long text past the inline buffer  ",
         "  a long text past the inline buffer", "a long text past the inline buffer"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Str(KString(c.in).TrimLeft()), c.left);
        EXPECT_EQ(Str(KString(c.in).TrimRight()), c.right);
        EXPECT_EQ(Str(KString(c.in).Trim()), c.both);
    }
}

TEST(kstring, Compare) {
    const struct {
        const char* a;
        const char* b;
        int exact;
        int noCase;
    } cases[] = {
        {"", "", 0, 0},         {"abc", "abc", 0, 0}, {"abc", "ABC", 1, 0},           {"abc", "abd", -1, -1},
        {"ab", "abc", -1, -1},  {"abc", "ab", 1, 1},  {"\xE0\xFF", "\xC0\xDF", 1, 0},  // Windows-1251 а я / А
                                                                                       // Я
        {"\xB8", "\xA8", 1, 1},  // ё is not folded
        {"[", "{", -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + c.b);
        EXPECT_EQ(KString(c.a).Compare(c.b), c.exact);
        EXPECT_EQ(KString(c.a).CompareNoCase(c.b), c.noCase);
        EXPECT_EQ(KString(c.a).EqualsNoCase(c.b), c.noCase == 0);
    }
    EXPECT_EQ(KString("a").CompareNoCase(nullptr), 1);
    EXPECT_TRUE(KString("x\0y", 3) == KString("x\0y", 3));
    EXPECT_FALSE(KString("x\0y", 3) == KString("x\0z", 3));
    EXPECT_EQ(KString("x\0y", 3).CompareNoCase("x"), 1);
}

TEST(kstring, FormatAndAppend) {
    EXPECT_EQ(Str(KString::Format("%s=%d", "n", 42)), "n=42");
    EXPECT_EQ(Str(KString::Format("%s", "")), "");
    const std::string big(1000, 'q');
    EXPECT_EQ(Str(KString::Format("<%s>", big.c_str())), "<" + big + ">");
    KString s("ab");
    s.AppendFormat("%03d", 7).Append('c').Append("de").Append(KString("f")).Append(nullptr);
    s.AppendFormat("%s", big.c_str());
    EXPECT_EQ(Str(s), "ab007cdef" + big);
    // Appending a part of itself, across growth.
    KString self("0123456789abcdef");
    self.Append(self.c_str() + 2, 10);
    EXPECT_EQ(Str(self), "0123456789abcdef23456789ab");
    self.Assign(self.c_str() + 16, 4);
    EXPECT_EQ(Str(self), "2345");
}

TEST(kstring, CopyMoveAndDetachAcrossTheInlineBuffer) {
    for (size_t n : {0u, 1u, 15u, 16u, 100u}) {
        const std::string text(n, 'x');
        KString a(text.c_str());
        KString b(a);
        KString c(std::move(a));
        EXPECT_EQ(Str(b), text);
        EXPECT_EQ(Str(c), text);
        EXPECT_EQ(Str(a), "");
        KString d("something longer than fifteen bytes");
        d = std::move(c);
        EXPECT_EQ(Str(d), text);
        KString e("short");
        e = b;
        EXPECT_EQ(Str(e), text);
        char* block = e.Detach();
        EXPECT_EQ(std::string(block), text);
        EXPECT_TRUE(e.empty());
        KWMemFree(block);
        e = "again";
        EXPECT_EQ(Str(e), "again");
        e = nullptr;
        EXPECT_TRUE(e.empty());
    }
}

TEST(kstring, AllocationFailureThrowsAndKeepsTheString) {
    kwz::test::ForEachAllocationFailure([](auto fired) {
        KString s("short");
        bool threw = false;
        try {
            s.Append(std::string(100, 'y').c_str());
            s.Append(std::string(1000, 'z').c_str());
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        EXPECT_EQ(threw, fired());
        EXPECT_EQ(s.c_str()[0], 's');
    });
}

}  // namespace
