// CStrParser: the face of a text and of what can be done to it. Text and cursor are a ParserText; bytes are
// passed by ParserPassing, numbers and addresses taken by ParserNumbers and ParserAddresses.
#include <Reticor/StrParser.h>

#include <algorithm>
#include <cassert>
#include <cstring>

#include "Tool/text/ParserAddresses.h"
#include "Tool/text/ParserNumbers.h"
#include "Tool/text/ParserPassing.h"
#include "Tool/text/ParserText.h"

namespace Orvex::Reticor {

namespace {

unsigned char* search(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len,
                      ParserText::Search how) {
    if (hay == nullptr || needle == nullptr || hay_len < 1 || needle_len < 1) {
        return nullptr;
    }
    const char* const text = reinterpret_cast<const char*>(hay);
    const char* const found = how(text, static_cast<size_t>(hay_len), reinterpret_cast<const char*>(needle),
                                  static_cast<size_t>(needle_len));
    return found != nullptr ? hay + (found - text) : nullptr;
}

}  // namespace

CStrParser::CStrParser() noexcept : m_text(ParserText::make()) {}

CStrParser::CStrParser(const char* text) noexcept : CStrParser() {
    Attach(text);
}

CStrParser::CStrParser(const char* text, unsigned len) noexcept : CStrParser() {
    Attach(text, len);
}

CStrParser::~CStrParser() {
    ParserText::end(m_text);
}

int CStrParser::Attach(const char* text) {
    assert(text);
    return m_text->attach(text, strlen(text));
}

int CStrParser::Attach(const char* text, unsigned len) {
    assert(text);
    return m_text->attach(text, len);
}

int CStrParser::Append(const char* text) {
    return text == nullptr ? -1 : m_text->append(text);
}

const char* CStrParser::GetString() const {
    return m_text->bytes();
}

int CStrParser::GetStringLen() const {
    return m_text->length();
}

int CStrParser::GetStatus() const {
    return m_text->status();
}

// ---- position --------------------------------------------------------------------------------------------

int CStrParser::GetCurOffset() const {
    return m_text->offset();
}

char CStrParser::GetCurChar() const {
    return m_text->at(m_text->offset());
}

char CStrParser::CheckPrevChar() const {
    return m_text->at(m_text->offset() - 1);
}

void CStrParser::ResetAll() {
    m_text->set_offset(0);
    m_text->set_status(0);
}

void CStrParser::ResetToLineHead() {
    m_text->set_offset(m_text->line_head());
}

int CStrParser::LocateOffset(int offset) {
    m_text->set_offset(offset < 0 ? 0 : std::min(offset, m_text->length() - 1));
    return m_text->offset();
}

int CStrParser::GetLineNum() const {
    return m_text->line_ends();
}

unsigned CStrParser::GetCurLinelength() const {
    return m_text->line_length();
}

// ---- compare, expect, search -----------------------------------------------------------------------------

int CStrParser::Compare(const char* s) const {
    return m_text->compare(s);
}

int CStrParser::CompareCase(const char* s) const {
    return m_text->compare_case(s);
}

int CStrParser::Expect(char c) {
    return ParserPassing(*m_text).expect(c);
}

int CStrParser::ExpectEOL() {
    return ParserPassing(*m_text).expect_line_end();
}

int CStrParser::LocateString(const char* s) {
    return m_text->locate(s, m_text->held(), ParserText::search);
}

int CStrParser::LocateStringCase(const char* s) {
    return m_text->locate(s, m_text->held(), ParserText::search_case);
}

int CStrParser::LocateStringInLine(const char* s) {
    return m_text->locate(s, m_text->line_tail() + 1, ParserText::search);
}

int CStrParser::LocateStringInLineCase(const char* s) {
    return m_text->locate(s, m_text->line_tail() + 1, ParserText::search_case);
}

unsigned char* CStrParser::MemMem(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len) {
    return search(hay, hay_len, needle, needle_len, ParserText::search);
}

unsigned char* CStrParser::MemMemCase(unsigned char* hay, int hay_len, unsigned char* needle,
                                      int needle_len) {
    return search(hay, hay_len, needle, needle_len, ParserText::search_case);
}

// ---- passing ---------------------------------------------------------------------------------------------

int CStrParser::ConsumeUntil(char c) {
    return ParserPassing(*m_text).until(c);
}

int CStrParser::ConsumeUntil(const unsigned char* table) {
    return ParserPassing(*m_text).until(table);
}

int CStrParser::ConsumeUntilDigit() {
    return ParserPassing(*m_text).until_digit();
}

int CStrParser::ConsumeUntilHexDigit() {
    return ParserPassing(*m_text).until_hex_digit();
}

int CStrParser::ConsumeUntilinLine(char c) {
    return ParserPassing(*m_text).until_in_line(c);
}

int CStrParser::ConsumeUntilinLine(const unsigned char* table) {
    return ParserPassing(*m_text).until_in_line(table);
}

int CStrParser::ConsumeUntilNextLine() {
    return ParserPassing(*m_text).until_next_line();
}

int CStrParser::GetThru(char c) {
    return ParserPassing(*m_text).through(c);
}

int CStrParser::GetThruEOL() {
    return ParserPassing(*m_text).through('\n');
}

int CStrParser::ConsumeWhitespace() {
    return ParserPassing(*m_text).blanks();
}

int CStrParser::ConsumeWhitespaceInLine() {
    return ParserPassing(*m_text).blanks_in_line();
}

int CStrParser::ConsumeWord(char* out, unsigned out_len) {
    return ParserPassing(*m_text).word(out, out_len);
}

int CStrParser::ConsumeLength(unsigned len, char* out, unsigned out_len) {
    return ParserPassing(*m_text).bytes(len, out, out_len);
}

int CStrParser::ConsumeSentence(const char* delims, char* out, unsigned out_len) {
    return ParserPassing(*m_text).sentence(delims, out, out_len);
}

int CStrParser::GetLineWithHead(const char* head, char* out, unsigned out_len) {
    return ParserPassing(*m_text).line_with_head(head, out, out_len);
}

int CStrParser::GetLineNumWithHead(const char* head) {
    return ParserPassing(*m_text).lines_with_head(head);
}

// ---- numbers ---------------------------------------------------------------------------------------------

long long CStrParser::ConsumeInt64() {
    return ParserNumbers(*m_text).take(-1LL);
}

int CStrParser::ConsumeInt32() {
    return static_cast<int>(ConsumeInt64());
}

short CStrParser::ConsumeInt16() {
    return static_cast<short>(ConsumeInt64());
}

unsigned long long CStrParser::ConsumeUint64() {
    return ParserNumbers(*m_text).take(0ULL);
}

unsigned CStrParser::ConsumeUint32() {
    return static_cast<unsigned>(ConsumeUint64());
}

unsigned short CStrParser::ConsumeUint16() {
    return static_cast<unsigned short>(ConsumeUint64());
}

double CStrParser::ConsumeDouble() {
    return ParserNumbers(*m_text).take(-1.0);
}

float CStrParser::ConsumeFloat() {
    return static_cast<float>(ConsumeDouble());
}

unsigned CStrParser::ConsumeHexUint32() {
    return ParserNumbers(*m_text).take_hex();
}

// ---- addresses -------------------------------------------------------------------------------------------

int CStrParser::ConsumeIpAddr(char* out, unsigned out_len, int* family) {
    return ParserAddresses(*m_text).take(out, out_len, family);
}

// ---- replacement -----------------------------------------------------------------------------------------

int CStrParser::ReplaceInt64(long long value) {
    return ParserNumbers(*m_text).replace(value);
}

int CStrParser::ReplaceInt32(int value) {
    return ReplaceInt64(value);
}

int CStrParser::ReplaceInt16(short value) {
    return ReplaceInt64(value);
}

int CStrParser::ReplaceUint64(unsigned long long value) {
    return ParserNumbers(*m_text).replace(value);
}

int CStrParser::ReplaceUint32(unsigned value) {
    return ReplaceUint64(value);
}

int CStrParser::ReplaceUint16(unsigned short value) {
    return ReplaceUint64(value);
}

int CStrParser::ReplaceFloat(float value) {
    return ReplaceDouble(static_cast<double>(value));
}

int CStrParser::ReplaceDouble(double value) {
    return ParserNumbers(*m_text).replace(value);
}

int CStrParser::ReplaceIpAddr(const char* s) {
    return ParserAddresses(*m_text).replace(s);
}

int CStrParser::ReplaceLength(int len, const char* s) {
    m_text->overwrite(len, s);
    return m_text->offset();
}

}  // namespace Orvex::Reticor
