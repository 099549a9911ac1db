// Writing a record to a temporary file and reading it back.
#ifndef ZOR_TEST_RECORDIO_H
#define ZOR_TEST_RECORDIO_H

#include "samplefilebuilder.h"

#include <fcntl.h>
#include <unistd.h>

namespace zortest {

template <typename Record>
void writeRecord(const TempFile& file, const Record& record)
{
    const int fd = file.openForWriting();
    record.writeToFile(fd);
    close(fd);
}

template <typename Record>
bool readRecord(const TempFile& file, Record& record)
{
    const int fd = open(file.path().c_str(), O_RDONLY);
    const bool ok = record.readFromFile(fd);
    close(fd);
    return ok;
}

template <typename In, typename Out>
bool roundTrip(const In& in, Out& out)
{
    TempFile file;
    writeRecord(file, in);
    return readRecord(file, out);
}

// The file with its last `drop` bytes cut off, or with one byte replaced.
inline void truncateBy(const TempFile& file, size_t drop)
{
    std::vector<char> bytes = file.contents();
    bytes.resize(bytes.size() - drop);
    file.setContents(bytes);
}

inline void patchByte(const TempFile& file, size_t offset, char value)
{
    std::vector<char> bytes = file.contents();
    bytes.at(offset) = value;
    file.setContents(bytes);
}

} // namespace zortest

#endif
