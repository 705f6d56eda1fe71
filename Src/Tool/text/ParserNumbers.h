// ParserNumbers: takes and replaces the number at the cursor of a parser's text.
#pragma once

#include "Tool/text/ParserText.h"

namespace Orvex::Reticor {

/// The operations are those of CStrParser, which tells what a number is. `take` sets the text's status.
class ParserNumbers {
public:
    explicit ParserNumbers(ParserText& text) : m_text(text) {}

    /// `failure` if there is no number.
    long long take(long long failure);
    unsigned long long take(unsigned long long failure);
    double take(double failure);
    unsigned take_hex();

    /// The length of what was written, -1 if there is no number that ends inside the text.
    int replace(long long value);
    int replace(unsigned long long value);
    int replace(double value);

private:
    int number_end(int start, int end) const;
    int number_at_cursor() const;
    template <typename Value>
    Value take_as(Value failure);
    int replace_by(const char* digits);

    ParserText& m_text;
};

}  // namespace Orvex::Reticor
