// Number parsing of the text of /proc files, for the sampler's handlers
// and its set-up alike: no locale, no heap, no errno.
#ifndef ZOR_SAMPLER_PROCPARSE_H
#define ZOR_SAMPLER_PROCPARSE_H

#include <cstdint>

namespace zorsampler {

const char* skipSpaces(const char* p);
// A decimal number at `p`; the character after it, null if there is none.
const char* parseDecimal(const char* p, std::uint64_t& value);
// A hexadecimal number at `p`, without "0x"; as parseDecimal.
const char* parseHex(const char* p, std::uint64_t& value);
bool startsWith(const char* text, const char* prefix);

// "/proc/self/statm": the second field, resident pages.
bool parseResidentPages(const char* text, std::uint64_t& pages);
// "/proc/self/io": the "rchar:" and "wchar:" lines.
bool parseIoCounters(const char* text, std::uint64_t& charsRead, std::uint64_t& charsWritten);

} // namespace zorsampler

#endif
