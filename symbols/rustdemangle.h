// Rust's symbol names, in either of the compiler's schemes, as the language
// writes them: "<u64>::wrapping_mul" for "_RNvMNtCs..._4core3numy12wrapping_mul",
// "main::crunch" for "_ZN4main6crunch17h0123456789abcdefE", without the
// hashes that tell builds apart.
#ifndef ZOR_RUSTDEMANGLE_H
#define ZOR_RUSTDEMANGLE_H

#include <QString>

// False, leaving `demangled` alone, for a name that is no Rust symbol.
bool demangleRust(const QString& name, QString* demangled);

#endif
