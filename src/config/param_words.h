// Word-level reading of the settings file, shared by the device block reader and the
// file maintenance. Every word is read with a bounded conversion; nothing here allocates.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include "config/global_settings.h"

// Result of ReadIniWord.
enum IniWordResult { kIniWordEnd = 0, kIniWordOk = 1 };

// Text stored for a word longer than kTextMax - 1 characters. It holds blanks, so it never
// equals a word of the file, a key or an address read from a file.
constexpr const char* kOverlongWord = "[ overlong word ]";

// Reads the next white-space separated word into word (kTextMax bytes). A longer word is
// consumed whole and stored as kOverlongWord, and so is a word that holds a NUL byte. The
// stream is left just after the word (the white space after it is not consumed). Returns
// kIniWordOk, or kIniWordEnd at end of file or on a read error (word is then "").
IniWordResult ReadIniWord(FILE* stream, char word[kTextMax]);

// The one rule for numbers in the settings file and on the command line: the leading number
// of the text, as the "%d" and "%x" conversions read it. Leading white space, an optional
// sign, then digits; whatever follows them is ignored ("2abc" is 2, "0x10" is 0 in decimal).
// A minus sign in hexadecimal negates in 32-bit unsigned arithmetic ("-1" is 0xFFFFFFFF),
// and "0x" may precede hexadecimal digits. Returns true and stores the number; false, with
// *value untouched, when no digit follows or the number does not fit 32 bits (signed for
// decimal, unsigned for hexadecimal), so no value ever wraps.
bool ParseLeadingNumber(const char* text, int32_t* value);
bool ParseLeadingHexNumber(const char* text, uint32_t* value);

// The block number 0-9 of a header word "[Device_No.<digit>]", or -1 when word is not
// exactly such a header ("[Device_No.99]", "[Device_No.x]" and the like are not headers).
int IniBlockNumber(const char* word);

constexpr const char* kIniHeaderWord = "[TavrineA.ini]";
constexpr const char* kEndOfDeviceWord = "[EndOfDevice]";
constexpr const char* kEndOfFileWord = "[EndOfFile]";
constexpr int kBlockHeaderLen = 13;  // strlen("[Device_No.0]")
constexpr int kMaxBlockNumber = 9;
