// qeval: precedence, signs, faults that must not trap, and the depth bound.
#include "framework/qeval.h"

#include <gtest/gtest.h>

#include <string>

TEST(QEval, ValuesAndWhetherTheWholeTextWasUsed) {
  const int kMin = -2147483647 - 1;
  const struct { std::string text; int value; bool complete; } cases[] = {
      {"2*512", 1024, true}, {" 1 + 2 * 3 ", 7, true}, {"(1+2)*3", 9, true},
      {"10 - 4 - 3", 3, true}, {"-(3+4)*2 % 5", -4, true}, {"--5", 5, true}, {"17 / 5", 3, true},
      // Stops at the first foreign byte.
      {"1024.0", 1024, false}, {"", 0, false}, {"abc", 0, false}, {"(2+3", 5, false},
      // Faults give zero or wrap instead of trapping.
      {"5/0", 0, true}, {"5%0", 0, true}, {"-2147483647-1", kMin, true},
      {"(-2147483647-1)/-1", kMin, true}, {"(-2147483647-1)%-1", 0, true},
      {"2147483647+1", kMin, true},
      // The depth bound.
      {std::string(100000, '(') + "1", 0, false}, {std::string(100000, '-'), 0, false}};
  for (const auto& c : cases) {
    bool complete = !c.complete;
    EXPECT_EQ(qeval(c.text.c_str(), &complete), c.value) << c.text.substr(0, 20);
    EXPECT_EQ(complete, c.complete) << c.text.substr(0, 20);
  }
  EXPECT_EQ(qeval(nullptr), 0);
}
