// qeval: precedence, signs, faults that must not trap, and the depth bound.
#include "framework/qeval.h"

#include <gtest/gtest.h>

#include <string>

TEST(QEval, PrecedenceSignsAndParentheses) {
  EXPECT_EQ(qeval("2*512"), 1024);
  EXPECT_EQ(qeval(" 1 + 2 * 3 "), 7);
  EXPECT_EQ(qeval("(1+2)*3"), 9);
  EXPECT_EQ(qeval("10 - 4 - 3"), 3);
  EXPECT_EQ(qeval("-(3+4)*2 % 5"), -4);
  EXPECT_EQ(qeval("--5"), 5);
  EXPECT_EQ(qeval("17 / 5"), 3);
}

TEST(QEval, StopsAtTheFirstForeignByte) {
  bool complete = true;
  EXPECT_EQ(qeval("1024.0", &complete), 1024);
  EXPECT_FALSE(complete);
  EXPECT_EQ(qeval("12", &complete), 12);
  EXPECT_TRUE(complete);
  EXPECT_EQ(qeval("", &complete), 0);
  EXPECT_FALSE(complete);
  EXPECT_EQ(qeval(nullptr), 0);
  EXPECT_EQ(qeval("abc"), 0);
  EXPECT_EQ(qeval("(2+3", &complete), 5);
  EXPECT_FALSE(complete);
}

TEST(QEval, FaultsGiveZeroOrWrapInsteadOfTrapping) {
  EXPECT_EQ(qeval("5/0"), 0);
  EXPECT_EQ(qeval("5%0"), 0);
  EXPECT_EQ(qeval("-2147483647-1"), -2147483647 - 1);
  EXPECT_EQ(qeval("(-2147483647-1)/-1"), -2147483647 - 1);
  EXPECT_EQ(qeval("(-2147483647-1)%-1"), 0);
  EXPECT_EQ(qeval("2147483647+1"), -2147483647 - 1);
  std::string deep(100000, '(');
  bool complete = true;
  EXPECT_EQ(qeval((deep + "1").c_str(), &complete), 0);
  EXPECT_FALSE(complete);
  EXPECT_EQ(qeval(std::string(100000, '-').c_str()), 0);
}
