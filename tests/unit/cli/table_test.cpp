// Tables: columns that stand under their headings, whatever the cells hold.

#include "cli/Table.h"

#include <gtest/gtest.h>

TEST(Table, ColumnsAreAsWideAsTheirWidestCellIsShownAndLinesEndWithoutBlanks) {
  EXPECT_EQ(
      tableText({"A", "LONG", "C"}, {{"Zürich", "2", ""}, {"x", "", "yz"}, {"a\nb", "1", ""}}),
      "A       LONG  C\n"
      "Zürich  2\n"
      "x             yz\n"
      "a\\x0ab  1\n");
}
