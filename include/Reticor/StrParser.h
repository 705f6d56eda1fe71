// CStrParser: a cursor over a private copy of a text, for line-oriented protocol text.
#pragma once

#include <cstddef>

#include <Reticor/Export.h>

namespace Orvex::Reticor {

class ParserText;

/// Reads a request with headers word by word and line by line, and replaces a number or an address in place.
///
///     CStrParser parser("CSeq: 302\r\nScale: 1.0\r\n");
///     if (parser.LocateString("CSeq:") != -1 && parser.ConsumeUntilDigit() != -1) {
///         unsigned cseq = parser.ConsumeUint32();  // GetStatus() is 0: there was a number
///     }
///
/// Threads: a parser belongs to one thread at a time; it has no lock. Nothing blocks, and nothing is logged.
///
/// Ownership: the text is copied. Buffers that are passed in stay the caller's, and may be part of the text
/// of the very same parser wherever they are only read.
///
/// Errors: results, never exceptions. -1 unless another value is named, and `GetStatus` for the numbers,
/// whose results cannot tell. A null pointer for a text that is searched or compared gives -1. Only `Attach`
/// asserts. The parser's own record of some 50 bytes is taken by the constructors; without memory it comes
/// out of a reserve of 256, and a parser that finds that used up as well never has a text: `Attach` and
/// `Append` give -1.
///
/// Lengths and offsets are counts of bytes. The longest text is INT_MAX - 16 bytes; what would be longer
/// fails as if there were no memory.
///
/// Lines end at '\n'. A '\r' before it belongs to the line, save where a comment says otherwise. Characters
/// are classified as ASCII whatever the process's locale is: bytes above 127 are neither blanks nor digits
/// nor letters. A word character is one from 33 to 126.
///
/// The cursor normally lies within 0 to `GetStringLen`. Two operations take it further: a number that reaches
/// the end of the text leaves it at `GetStringLen() + 1`, and `LocateOffset` on an empty text at -1. Nothing
/// is left to read in either place, nor after the last byte: every operation there finds an exhausted text.
class RETICOR_API CStrParser {
public:
    /// An empty parser: `GetString` is null.
    CStrParser() noexcept;
    /// As `Attach(text)`. `GetStatus` tells whether there was memory.
    explicit CStrParser(const char* text) noexcept;
    /// As `Attach(text, len)`.
    CStrParser(const char* text, unsigned len) noexcept;
    ~CStrParser();
    CStrParser(const CStrParser&) = delete;
    CStrParser& operator=(const CStrParser&) = delete;

    /// Takes a copy of `text`, which must not be null, in place of the present one; cursor and status become
    /// 0. Gives 0. Without memory: -1, status -1, and an empty parser without a text.
    int Attach(const char* text);
    /// The same with `len` bytes, NUL bytes among them.
    int Attach(const char* text, unsigned len);
    /// Adds a copy of `text` at the end and gives the new length. The cursor stays. A null pointer or no
    /// memory gives -1, and the text is unchanged.
    int Append(const char* text);

    /// The text, valid until the next `Attach`, `Append` or `Replace...`. It has `GetStringLen` bytes; do not
    /// count on a terminator: a replacement that shortens the end of the text leaves the old bytes after it.
    const char* GetString() const;
    /// Bytes of text. After a replacement that failed for want of memory this is the length that the text
    /// would have got, while the parser goes on reading the bytes that it still holds.
    int GetStringLen() const;
    /// 0, or -1 if the last numeric `Consume...` failed or the last `Attach` found no memory. Other
    /// operations leave it alone.
    int GetStatus() const;

    // Position.

    /// The offset of the cursor, from 0 on.
    int GetCurOffset() const;
    /// The byte at the cursor, 0 if none is left.
    char GetCurChar() const;
    /// The byte before the cursor, 0 if there is none.
    char CheckPrevChar() const;
    /// Cursor and status to 0.
    void ResetAll();
    /// To the first byte of the cursor's line. A cursor on a '\n' belongs to the line that it ends; one after
    /// the last '\n' of the text goes onto that '\n'.
    void ResetToLineHead();
    /// Stores and gives `offset`, clamped to 0 and `GetStringLen() - 1`. On an empty text an offset of 0 and
    /// above gives -1.
    int LocateOffset(int offset);
    /// Number of '\n' in the whole text, so a last line without one is not counted.
    int GetLineNum() const;
    /// Bytes of the cursor's line, without its "\n" or "\r\n".
    unsigned GetCurLinelength() const;

    // Compare and expect. The cursor moves only where that is said.

    /// What `strncmp` gives for `strlen(s)` bytes at the cursor; -1 also if fewer remain.
    int Compare(const char* s) const;
    /// The same without regard to case.
    int CompareCase(const char* s) const;
    /// If `c` is at the cursor: moves one on and gives the new offset. Otherwise -1.
    int Expect(char c);
    /// If "\n" or "\r\n" is at the cursor: moves past it and gives the new offset. Otherwise -1; a '\r'
    /// that is the last byte of the text is passed all the same.
    int ExpectEOL();

    // Search. Each moves the cursor to the first match from the cursor on and gives its offset, or leaves it
    // and gives -1. An empty `s` is not found. "InLine" searches through the '\n' of the cursor's line.

    /// The bytes of `s`.
    int LocateString(const char* s);
    /// Without regard to case.
    int LocateStringCase(const char* s);
    /// In the cursor's line.
    int LocateStringInLine(const char* s);
    /// In the cursor's line, without regard to case.
    int LocateStringInLineCase(const char* s);

    /// The first occurrence of `needle` in `hay`, or null; null also for a null pointer or a length below 1.
    static unsigned char* MemMem(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len);
    /// The same without regard to case.
    static unsigned char* MemMemCase(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len);

    // Passing bytes. Each gives the count of bytes passed, or leaves the cursor and gives -1 if the text ends
    // first.
    //
    // A `table` holds, for each byte, whether to stop: not 0 stops. It is indexed with the byte as a signed
    // char, from -128 to 127, so for foreign bytes the pointer must stand in the middle of 256 entries:
    //
    //     unsigned char entries[256] = {};
    //     entries[128 + ','] = entries[128 + ';'] = 1;
    //     parser.ConsumeUntil(entries + 128);

    /// To the next `c`.
    int ConsumeUntil(char c);
    /// To the next byte of the table. A null table gives -1.
    int ConsumeUntil(const unsigned char* table);
    /// To the next of 0-9.
    int ConsumeUntilDigit();
    /// To the next of 0-9, A-F, a-f.
    int ConsumeUntilHexDigit();
    /// To the next `c` in this line. Coming to the '\n' first is a failure, unless `c` is '\n'.
    int ConsumeUntilinLine(char c);
    /// To the next byte of the table or to the '\n', whichever is first. A null table gives -1.
    int ConsumeUntilinLine(const unsigned char* table);
    /// Past the next '\n'. If that '\n' is the last byte of the text, the cursor stays on it and the result
    /// is the cursor's offset, not a count.
    int ConsumeUntilNextLine();
    /// Past the next `c`. If that is the last byte of the text, the cursor stays on it, and the count is
    /// one less. So at a final `c` the result is 0 for ever, not -1: a loop must not wait for -1 alone, but
    /// end when the cursor no longer moves.
    int GetThru(char c);
    /// `GetThru('\n')`, with the same warning: `while (GetThruEOL() != -1)` does not end on a text that ends
    /// in '\n'.
    int GetThruEOL();

    // Blanks and words. Each gives the count of bytes passed, which may be 0. With `out` set and `out_len`
    // above 0 what was passed is copied, cut to `out_len - 1` bytes and terminated.

    /// Blanks, line ends among them.
    int ConsumeWhitespace();
    /// Blanks up to the '\r' or '\n' of this line.
    int ConsumeWhitespaceInLine();
    /// Word characters.
    int ConsumeWord(char* out, unsigned out_len);
    /// `len` bytes, or what is left of them.
    int ConsumeLength(unsigned len, char* out, unsigned out_len);
    /// Up to the first byte that is one of `delims`, which is passed too but neither counted nor copied; the
    /// whole rest if there is none, or if `delims` is empty. `out` is left alone if the result is 0. With the
    /// cursor past the end, after a number that ended the text, or with null `delims`: -1.
    int ConsumeSentence(const char* delims, char* out, unsigned out_len);

    // Lines by their heads.

    /// Finds the next line that starts with `head`; a line that starts exactly at the cursor counts, except
    /// at offset 1. The cursor moves to the following line, or to the last byte of the text. With `out`
    /// usable, the line without its line end is copied, cut to `out_len - 1` bytes and terminated, and its
    /// full length is the result; otherwise the result is 0. No such line, or null `head`: -1, and the cursor
    /// stays. A last line is found again by the next call, since the cursor remains on its last byte.
    int GetLineWithHead(const char* head, char* out, unsigned out_len);
    /// Counts such lines from the cursor on, and leaves the cursor. Null `head` gives -1.
    int GetLineNumWithHead(const char* head);

    // Numbers. A number is an optional '-', digits, and at most one '.' between digits; no '+', no exponent.
    // On success the status is 0 and the cursor stands after the number, and one further still if the number
    // reaches the end of the text. On failure the status is -1 and the cursor stays. Integers pass a fraction
    // but leave it out of the value, saturate at 64 bits, and are then cut to the width of their type; the
    // unsigned ones take "-5" as 2^64 - 5.

    long long ConsumeInt64();            ///< Fails with -1.
    int ConsumeInt32();                  ///< Fails with -1.
    short ConsumeInt16();                ///< Fails with -1.
    unsigned long long ConsumeUint64();  ///< Fails with 0.
    unsigned ConsumeUint32();            ///< Fails with 0.
    unsigned short ConsumeUint16();      ///< Fails with 0.
    double ConsumeDouble();              ///< Fails with -1.0, also when the value is too large for a double.
    float ConsumeFloat();                ///< Fails with -1.0; too large for a float is infinite.
    /// All hex digits at the cursor, modulo 2^32. Without any it gives 0 with status 0; with no text left, 0
    /// with status -1. The cursor stops on the first other byte, or at the end.
    unsigned ConsumeHexUint32();

    // Addresses.

    /// Takes an IPv4 address, an IPv6 address, bare or in brackets, or a host name up to the next ':'. `out`
    /// is filled with zeros, gets the text without brackets, and has no terminator if that fills it. Gives
    /// the length in `out`; -1 if `out` is null, `out_len` below 7, or nothing is there, and then the cursor
    /// stays.
    ///
    /// A dotted quad is written anew, "010.1.1.1" as "10.1.1.1", without a check of its range. Its fields may
    /// have blanks and line ends or a sign in front, as scanf has it; the cursor, however, passes only digits
    /// and dots, so on "  1.2.3.4" it does not move. Call `ConsumeWhitespace` first. A run of hex digits and
    /// ':' is taken for an IPv6 address: "abc:80" comes as a whole.
    ///
    /// `family`, if set, tells what is in `out`: 4 for an IPv4 literal or an IPv4-mapped one, 6 for another
    /// IPv6 literal, with or without a scope, -1 for all else. No name is ever resolved.
    int ConsumeIpAddr(char* out, unsigned out_len, int* family);

    // Replacement. What stands at the cursor is replaced, and the cursor stays on its start. The result is
    // the length of the new text, or -1 if no number or address stands there, for a number that reaches the
    // end of the text, and without memory. If the new text is the longer one and the whole does not end in
    // '\n', "\r\n" is added at the end: the text is meant to be lines.

    /// The number that ConsumeInt64 would read, by `value` in decimal.
    int ReplaceInt64(long long value);
    /// As ReplaceInt64, for ConsumeInt32.
    int ReplaceInt32(int value);
    /// As ReplaceInt64, for ConsumeInt16.
    int ReplaceInt16(short value);
    /// As ReplaceInt64, for ConsumeUint64.
    int ReplaceUint64(unsigned long long value);
    /// As ReplaceInt64, for ConsumeUint32.
    int ReplaceUint32(unsigned value);
    /// As ReplaceInt64, for ConsumeUint16.
    int ReplaceUint16(unsigned short value);
    /// With six places after the point. A point is a point in every locale.
    int ReplaceFloat(float value);
    /// With six places; a value from 1e248 on is cut to 255 characters.
    int ReplaceDouble(double value);
    /// The address as `ConsumeIpAddr` sees it with 128 bytes, by `s` as it stands. As many bytes from the
    /// cursor on are replaced as that address has in its written form: of a bracketed one, those from the '['
    /// on, up to two before the ']'. Null `s` gives -1.
    int ReplaceIpAddr(const char* s);
    /// Overwrites up to `len` bytes by `s`, and by blanks when `s` has run out, up to the end of the text,
    /// whose length does not change. The cursor moves past them and is the result. Null `s` counts as
    /// empty.
    int ReplaceLength(int len, const char* s);

private:
    ParserText* m_text;
};

}  // namespace Orvex::Reticor
