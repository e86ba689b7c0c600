// EncodeBase64 and DecodeBase64.
#include "brenthaven/mime/smime.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
constexpr int kPad = 64;  // place of "=" in the alphabet
constexpr size_t kLineBytes = 57;
constexpr size_t kLineLetters = 76;

// The two letters of each 12 bits.
constexpr auto kPairs = [] {
  std::array<std::array<char, 2>, 4096> pairs{};
  for (unsigned i = 0; i < pairs.size(); ++i) pairs[i] = {kAlphabet[i >> 6], kAlphabet[i & 0x3f]};
  return pairs;
}();

// Place of each letter in the alphabet, kDropped for all other bytes.
constexpr uint8_t kDropped = 0xff;
constexpr auto kPlaces = [] {
  std::array<uint8_t, 256> places{};
  places.fill(kDropped);
  for (uint8_t i = 0; i <= kPad; ++i) places[static_cast<unsigned char>(kAlphabet[i])] = i;
  return places;
}();

// Each letter's six bits where it stands first to fourth in its group. A byte that carries no bits has one above the
// 24 of a group, so that one test finds it in four.
constexpr uint32_t kNoBits = 1U << 24;
constexpr auto kShifted = [] {
  std::array<std::array<uint32_t, 256>, 4> shifted{};
  for (unsigned c = 0; c < 256; ++c)
    for (unsigned i = 0; i < 4; ++i) shifted[i][c] = kPlaces[c] < kPad ? uint32_t{kPlaces[c]} << (18 - 6 * i) : kNoBits;
  return shifted;
}();

using Byte = unsigned char;

// Writes four letters for each three bytes and returns the end of what was written.
char *EncodeLine(std::string_view bytes, char *out) {
  auto const *in = reinterpret_cast<Byte const *>(bytes.data());
  auto const *const end = in + bytes.size();
  for (; end - in >= 3; in += 3, out += 4) {
    unsigned const group = in[0] << 16 | in[1] << 8 | in[2];
    memcpy(out, kPairs[group >> 12].data(), 2);
    memcpy(out + 2, kPairs[group & 0xfff].data(), 2);
  }
  if (in == end) return out;
  bool const two = end - in == 2;
  unsigned const group = in[0] << 16 | (two ? in[1] << 8 : 0);
  memcpy(out, kPairs[group >> 12].data(), 2);
  out[2] = two ? kAlphabet[group >> 6 & 0x3f] : '=';
  out[3] = '=';
  return out + 4;
}

// Reads groups of four letters.
class Decoder {
public:
  explicit Decoder(std::string_view text) : _in(reinterpret_cast<Byte const *>(text.data())), _end(_in + text.size()) {}

  // Decodes until the room is used up or the text has ended, and returns the number of bytes.
  size_t Decode(char *out, size_t room) {
    char *const begin = out;
    while (!_ended && room - static_cast<size_t>(out - begin) >= 3) {
      uint32_t const group = _end - _in >= 4 ? _Letters(_in) : kNoBits;
      if (group < kNoBits) {
        _in += 4;
        out = _Put(out, group, 3);
      } else {
        out = _DecodeScattered(out);
      }
    }
    return static_cast<size_t>(out - begin);
  }

private:
  static uint32_t _Letters(Byte const *in) {
    return kShifted[0][in[0]] | kShifted[1][in[1]] | kShifted[2][in[2]] | kShifted[3][in[3]];
  }

  static char *_Put(char *out, uint32_t group, int count) {
    for (int shift = 16; count > 0; shift -= 8, --count) *out++ = static_cast<char>(group >> shift);
    return out;
  }

  // A group with other bytes among its letters, or the last one. Padding ends the text; where it leaves less than one
  // byte's bits, or letters follow it in its group, the group gives nothing.
  char *_DecodeScattered(char *out) {
    Byte letters[4];
    int count = 0;
    for (; count < 4 && _in < _end; ++_in)
      if (kPlaces[*_in] != kDropped) letters[count++] = *_in;
    auto const pad = static_cast<int>(std::find(letters, letters + count, '=') - letters);
    _ended = count < 4 || pad < 4;
    if (count < 4 || pad < 2 || (pad == 2 && letters[3] != '=')) return out;
    std::fill(letters + pad, letters + 4, static_cast<Byte>('A'));
    return _Put(out, _Letters(letters), pad - 1);
  }

  Byte const *_in;
  Byte const *const _end;
  bool _ended = false;
};

}  // namespace

SString EncodeBase64(SString const &text) {
  if (text.Length() == 0) return text;
  std::string_view rest = text.View();
  SString encoded;
  encoded.Reserve(
      static_cast<int>(std::min<size_t>((rest.size() / kLineBytes + 1) * (kLineLetters + 2), SString::kMaxLength)));
  while (!rest.empty()) {
    char line[kLineLetters + 2];
    char *end = EncodeLine(rest.substr(0, kLineBytes), line);
    *end++ = '\r';
    *end++ = '\n';
    encoded.Append({line, static_cast<size_t>(end - line)});
    rest.remove_prefix(std::min(kLineBytes, rest.size()));
  }
  return encoded;
}

SString DecodeBase64(SString const &text) {
  if (text.Length() == 0) return text;
  SString decoded("");
  decoded.Reserve(text.Length() / 4 * 3);
  Decoder decoder(text.View());
  char block[3 * 1024];
  while (size_t const length = decoder.Decode(block, sizeof block)) decoded.Append({block, length});
  return decoded;
}
