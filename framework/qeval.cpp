// Integer expression evaluator: a recursive-descent parser whose depth is bounded.
#include "framework/qeval.h"

#include <cstdint>

namespace {

// All arithmetic goes through uint32_t so that overflow wraps instead of being undefined.
int32_t Wrap(uint32_t v) { return static_cast<int32_t>(v); }

class Parser {
 public:
  explicit Parser(const char* text) : p_(text) {}

  int32_t Expression(int depth) {
    int32_t v = Term(depth);
    for (;;) {
      SkipSpaces();
      char op = *p_;
      if (op != '+' && op != '-') return v;
      ++p_;
      int32_t r = Term(depth);
      if (failed_) return v;
      v = op == '+' ? Wrap(static_cast<uint32_t>(v) + static_cast<uint32_t>(r))
                    : Wrap(static_cast<uint32_t>(v) - static_cast<uint32_t>(r));
    }
  }

  void SkipSpaces() {
    while (*p_ == ' ' || *p_ == '\t') ++p_;
  }
  bool AtEnd() const { return *p_ == 0 && !failed_; }

 private:
  int32_t Term(int depth) {
    int32_t v = Unary(depth);
    for (;;) {
      SkipSpaces();
      char op = *p_;
      if (op != '*' && op != '/' && op != '%') return v;
      ++p_;
      int32_t r = Unary(depth);
      if (failed_) return v;
      if (op == '*') {
        v = Wrap(static_cast<uint32_t>(v) * static_cast<uint32_t>(r));
      } else if (r == 0) {
        // A configuration typo must not bring the program down: x/0 and x%0 count as 0.
        v = 0;
      } else if (r == -1) {
        // INT_MIN / -1 overflows; negation in unsigned arithmetic wraps instead.
        v = op == '/' ? Wrap(0u - static_cast<uint32_t>(v)) : 0;
      } else {
        v = op == '/' ? v / r : v % r;
      }
    }
  }

  int32_t Unary(int depth) {
    // Each unary sign or parenthesis costs one level, so a hostile value cannot exhaust the stack.
    if (depth >= QEVAL_MAX_DEPTH) {
      failed_ = true;
      return 0;
    }
    SkipSpaces();
    if (*p_ == '-') {
      ++p_;
      return Wrap(0u - static_cast<uint32_t>(Unary(depth + 1)));
    }
    if (*p_ == '+') {
      ++p_;
      return Unary(depth + 1);
    }
    if (*p_ == '(') {
      ++p_;
      int32_t v = Expression(depth + 1);
      SkipSpaces();
      if (*p_ == ')')
        ++p_;
      else
        failed_ = true;
      return v;
    }
    if (*p_ < '0' || *p_ > '9') {
      failed_ = true;
      return 0;
    }
    uint32_t v = 0;
    while (*p_ >= '0' && *p_ <= '9') v = v * 10u + static_cast<uint32_t>(*p_++ - '0');
    return Wrap(v);
  }

  const char* p_;
  bool failed_ = false;
};

}  // namespace

int qeval(const char* text, bool* complete) {
  if (!text) text = "";
  Parser parser(text);
  parser.SkipSpaces();
  bool empty = parser.AtEnd();
  int32_t v = empty ? 0 : parser.Expression(0);
  parser.SkipSpaces();
  if (complete) *complete = !empty && parser.AtEnd();
  return v;
}
