// Base64 with the standard alphabet and "=" padding.
#pragma once

// Room needed to encode `len` bytes, terminator included.
int Base64encode_len(int len);
// Writes the text and its terminator; returns the characters written plus one.
int Base64encode(char *out, const unsigned char *in, int len);
// Room needed to decode `in` (counted up to its first non-alphabet character), terminator included.
int Base64decode_len(const char *in);
// Decodes up to the first non-alphabet character, writes a zero after the bytes; returns the byte count.
int Base64decode(unsigned char *out, const char *in);
