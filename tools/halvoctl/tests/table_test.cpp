#include "table.h"

#include <gtest/gtest.h>

#include <sstream>

#include "printable.h"

namespace Hox::Ctl {

namespace {

TEST(Table, ColumnsAreAsWideAsTheirWidestText) {
    Table table({"A", "LONG", "C"});
    table.add({"grüße", "x", "end"});
    std::ostringstream out;
    table.print(out, Painter(false));
    EXPECT_EQ(out.str(), "A      LONG  C\ngrüße  x     end\n");
}

TEST(Table, WithoutRowsNothingIsPrinted) {
    std::ostringstream out;
    Table({"A"}).print(out, Painter(false));
    EXPECT_EQ(out.str(), "");
}

TEST(Table, AColourDoesNotMoveTheColumns) {
    Table table({"A", "B"});
    table.add({"x", "y"}, Painter::Color::Red);
    std::ostringstream out;
    table.print(out, Painter(true));
    EXPECT_EQ(out.str(), "A  B\n\x1b[31mx\x1b[0m  y\n");
}

TEST(Printable, ControlCharactersAndOtherBytesAreEscaped) {
    EXPECT_EQ(printable("a\x1b[2Jb\n\tc\x7f"), "a\\x1b[2Jb\\n\\tc\\x7f");
    EXPECT_EQ(printable("\xc2\x9b"
                        "31m"),
              "\\xc2\\x9b31m");
    EXPECT_EQ(printable("\xff\xc0\xaf\xe2\x82"), "\\xff\\xc0\\xaf\\xe2\\x82");
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(printable("€ 𝄞 ü"), "€ 𝄞 ü");
}

}  // namespace

}  // namespace Hox::Ctl
