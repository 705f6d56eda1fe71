// ParserAddresses: takes and replaces the internet address or host name at the cursor of a parser's text.
#pragma once

#include "Tool/text/ParserText.h"

namespace Orvex::Reticor {

/// The operations are those of CStrParser, which tells what is taken for an address.
class ParserAddresses {
public:
    explicit ParserAddresses(ParserText& text) : m_text(text) {}

    /// The length in `out`, or -1. `family`, if not null, is 4, 6, or -1 for a name.
    int take(char* out, unsigned out_len, int* family);
    /// The length of `s`, or -1. The cursor stays.
    int replace(const char* s);

private:
    ParserText& m_text;
};

}  // namespace Orvex::Reticor
