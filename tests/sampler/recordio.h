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

// Writes the record, then cuts off its last `drop` bytes or replaces the
// byte at `offset`, counted from the end when negative.
template <typename Record>
void writeTruncated(const TempFile& file, const Record& record, size_t drop)
{
    writeRecord(file, record);
    std::vector<char> bytes = file.contents();
    bytes.resize(bytes.size() - drop);
    file.setContents(bytes);
}

template <typename Record>
void writePatched(const TempFile& file, const Record& record, long offset, char value)
{
    writeRecord(file, record);
    std::vector<char> bytes = file.contents();
    bytes.at(static_cast<size_t>(offset < 0 ? static_cast<long>(bytes.size()) + offset : offset)) = value;
    file.setContents(bytes);
}

} // namespace zortest

#endif
