// qeval: the integer expression evaluator behind configuration values such as "2*512".
//
// Grammar: integers, spaces, binary "+", "-", "*", "/", "%", unary "-" and "+", parentheses;
// "*", "/" and "%" bind tighter than "+" and "-", all left-associative. Arithmetic wraps around
// in 32 bits (no undefined behaviour on overflow). Parentheses nest at most QEVAL_MAX_DEPTH deep.
// Nothing is allocated and nothing is logged: the caller decides whether a value deserves a word.
#pragma once

constexpr int QEVAL_MAX_DEPTH = 64;

// Evaluates `text` (null reads as empty, giving 0). Evaluation stops at the first byte that
// does not fit the grammar and answers what was read up to there, so "1024.0" gives 1024.
// `complete` (optional) is set to true only when the whole text was consumed.
// Division or modulo by zero gives 0 instead of a trap.
int qeval(const char* text, bool* complete = nullptr);
