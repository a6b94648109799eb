// Tables: columns that stand under their headings, whatever the cells hold.

#include "cli/Table.h"

#include <gtest/gtest.h>

TEST(Table, ColumnsAreAsWideAsTheirWidestCellAndLinesEndWithoutBlanks) {
  EXPECT_EQ(tableText({"A", "LONG", "C"}, {{"one", "2", ""}, {"x", "", "yz"}}),
            "A    LONG  C\n"
            "one  2\n"
            "x          yz\n");
}

TEST(Table, LettersOfAnyLanguageCountOnce) {
  EXPECT_EQ(tableText({"N", "X"}, {{"Zürich", "1"}, {"Berlin", "2"}}),
            "N       X\n"
            "Zürich  1\n"
            "Berlin  2\n");
}

TEST(Table, ControlCharactersAreShownAndCountedAsTheyAreShown) {
  EXPECT_EQ(tableText({"N", "X"}, {{"a\nb", "1"}}),
            "N       X\n"
            "a\\x0ab  1\n");
}

TEST(Table, WithoutRowsThereIsTheHeading) { EXPECT_EQ(tableText({"A", "B"}, {}), "A  B\n"); }
