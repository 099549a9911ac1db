#include "modules.h"
#include "procparse.h"
#include "runtime.h"
#include "zor_print.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstddef>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <atomic>
#include <sched.h>
#include <unistd.h>

namespace zorsampler {

namespace {

const int MAX_MODULES = 1024;
const int MAX_PATH = 512;
const int MAX_BUILD_ID = 64;

struct Module
{
    std::uint64_t start;
    char path[MAX_PATH];
    unsigned char buildId[MAX_BUILD_ID];
    int buildIdSize;
};

// Readable mappings of the current scan, for checking that an ELF header
// is there before it is read.
struct Range
{
    std::uint64_t start;
    std::uint64_t end;
};

struct Snapshot
{
    Module modules[MAX_MODULES];
    int count;
    Range readable[4 * MAX_MODULES];
    int rangeCount;
};

// In zero pages until used: the start's snapshot and the end's, and the
// objects seen in between that neither holds.
Snapshot gAtStart;
Snapshot gAtEnd;
Snapshot gBetween;
Snapshot gScratch;
// Not a mutex: this file's writing half runs in signal handlers, where none may be.
std::atomic_flag gBetweenLock = ATOMIC_FLAG_INIT;
bool gStarted = false;
bool gScannedBetween = false;
unsigned long long gAddsAtScan = 0;

int countAdds(dl_phdr_info* info, std::size_t size, void* adds)
{
    if (size >= offsetof(dl_phdr_info, dlpi_adds) + sizeof info->dlpi_adds)
        *static_cast<unsigned long long*>(adds) = info->dlpi_adds;
    return 1;
}

bool isReadable(const Snapshot& s, std::uint64_t at, std::uint64_t size)
{
    for (int i = 0; i < s.rangeCount; ++i) {
        if (at >= s.readable[i].start && at + size <= s.readable[i].end && at + size >= at)
            return true;
    }
    return false;
}

// The GNU build id of the ELF object whose offset 0 is mapped at `start`,
// from its program headers and notes in memory.
void readBuildId(const Snapshot& s, Module& m)
{
    m.buildIdSize = 0;
    const std::uint64_t start = m.start;
    if (!isReadable(s, start, sizeof(Elf64_Ehdr)))
        return;
    const Elf64_Ehdr* header = reinterpret_cast<const Elf64_Ehdr*>(start);
    if (std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 || header->e_ident[EI_CLASS] != ELFCLASS64
        || header->e_phentsize != sizeof(Elf64_Phdr))
        return;
    const std::uint64_t phdrs = start + header->e_phoff;
    if (!isReadable(s, phdrs, std::uint64_t(header->e_phnum) * sizeof(Elf64_Phdr)))
        return;
    const Elf64_Phdr* ph = reinterpret_cast<const Elf64_Phdr*>(phdrs);
    // Where the first loadable segment's address is mapped.
    std::uint64_t firstLoad = 0;
    bool haveLoad = false;
    for (int i = 0; i < header->e_phnum; ++i) {
        if (ph[i].p_type == PT_LOAD && (!haveLoad || ph[i].p_vaddr < firstLoad)) {
            firstLoad = ph[i].p_vaddr & ~std::uint64_t(0xfff);
            haveLoad = true;
        }
    }
    const std::uint64_t bias = start - firstLoad;
    for (int i = 0; i < header->e_phnum; ++i) {
        if (ph[i].p_type != PT_NOTE)
            continue;
        std::uint64_t at = bias + ph[i].p_vaddr;
        const std::uint64_t end = at + ph[i].p_memsz;
        if (!isReadable(s, at, ph[i].p_memsz))
            continue;
        while (at + sizeof(Elf64_Nhdr) <= end) {
            const Elf64_Nhdr* note = reinterpret_cast<const Elf64_Nhdr*>(at);
            const std::uint64_t name = at + sizeof(Elf64_Nhdr);
            const std::uint64_t desc = name + ((note->n_namesz + 3) & ~3u);
            const std::uint64_t next = desc + ((note->n_descsz + 3) & ~3u);
            if (next > end)
                break;
            if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4
                && std::memcmp(reinterpret_cast<const char*>(name), "GNU", 4) == 0
                && note->n_descsz <= MAX_BUILD_ID) {
                std::memcpy(m.buildId, reinterpret_cast<const void*>(desc), note->n_descsz);
                m.buildIdSize = static_cast<int>(note->n_descsz);
                return;
            }
            at = next;
        }
    }
}

// One line of /proc/self/maps: "START-END PERMS OFFSET DEV INODE PATH".
void takeLine(Snapshot& s, const char* line, const char* lineEnd)
{
    std::uint64_t start = 0, end = 0, offset = 0, inode = 0;
    const char* p = parseHex(line, start);
    if (!p || *p != '-' || !(p = parseHex(p + 1, end)) || *p != ' ')
        return;
    const bool readable = p[1] == 'r';
    p = skipSpaces(p + 5);
    if (!(p = parseHex(p, offset)))
        return;
    p = skipSpaces(p);
    while (p < lineEnd && *p != ' ')
        ++p; // the device
    if (!(p = parseDecimal(skipSpaces(p), inode)))
        return;
    p = skipSpaces(p);
    if (readable && s.rangeCount < 4 * MAX_MODULES)
        s.readable[s.rangeCount++] = Range{start, end};
    // Files only, each once, where its offset 0 is mapped.
    if (inode == 0 || offset != 0 || *p != '/' || lineEnd - p >= MAX_PATH || s.count == MAX_MODULES)
        return;
    for (int i = 0; i < s.count; ++i) {
        if (std::strncmp(s.modules[i].path, p, lineEnd - p) == 0 && s.modules[i].path[lineEnd - p] == '\0')
            return;
    }
    Module& m = s.modules[s.count++];
    m.start = start;
    std::memcpy(m.path, p, lineEnd - p);
    m.path[lineEnd - p] = '\0';
}

void scan(Snapshot& s)
{
    s.count = 0;
    s.rangeCount = 0;
    const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    // Lines are taken whole from a buffer that is refilled as they go.
    char buffer[8192];
    std::size_t filled = 0;
    for (;;) {
        const ssize_t n = read(fd, buffer + filled, sizeof buffer - 1 - filled);
        if (n <= 0)
            break;
        filled += static_cast<std::size_t>(n);
        buffer[filled] = '\0';
        char* line = buffer;
        for (char* newline; (newline = std::strchr(line, '\n'));) {
            *newline = '\0';
            takeLine(s, line, newline);
            line = newline + 1;
        }
        filled -= static_cast<std::size_t>(line - buffer);
        std::memmove(buffer, line, filled);
        if (filled == sizeof buffer - 1)
            filled = 0; // a line too long for any use here
    }
    close(fd);
    for (int i = 0; i < s.count; ++i)
        readBuildId(s, s.modules[i]);
}

const Module* find(const Snapshot& s, const Module& m)
{
    for (int i = 0; i < s.count; ++i) {
        if (s.modules[i].start == m.start && std::strcmp(s.modules[i].path, m.path) == 0)
            return &s.modules[i];
    }
    return nullptr;
}

void writeModule(int fd, const Module& m, const char* state)
{
    quorvex::SafeMessage line;
    line.str("0x").hex(m.start).str(" ");
    static const char digits[] = "0123456789abcdef";
    char id[2 * MAX_BUILD_ID + 1];
    for (int i = 0; i < m.buildIdSize; ++i) {
        id[2 * i] = digits[m.buildId[i] >> 4];
        id[2 * i + 1] = digits[m.buildId[i] & 15];
    }
    id[2 * m.buildIdSize] = '\0';
    line.str(m.buildIdSize ? id : "-").str(" ").str(state).str(" ").str(m.path).str("\n");
    line.writeTo(fd);
}

} // namespace

void recordModulesAtStart()
{
    scan(gAtStart);
    gStarted = true;
}

namespace {

// Mappings of code from files that the program made through mmap, as
// zs_note_file_mapping saw them; past the last, none are kept.
const int MAX_NOTED_MAPPINGS = 64;
struct NotedMapping
{
    std::atomic<bool> ready{false};
    unsigned long long start = 0, end = 0, offset = 0;
    char path[512] = {};
};
NotedMapping gNotedMappings[MAX_NOTED_MAPPINGS];
std::atomic<int> gNotedMappingCount{0};

// The mappings of files as /proc tells them, each line behind "map ", then
// those that the program made of code, whether still there or not: a
// runtime may map code of a file a second time, away from where the loader
// put it, which the loader's list doesn't show.
void writeFileMappings(int out)
{
    const int in = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return;
    static char buffer[16384];
    static char line[4096 + 8];
    // Gathered, so that a program of thousands of mappings costs a few writes.
    static char gathered[65536];
    std::size_t length = 0, gatheredLength = 0;
    bool tooLong = false;
    for (;;) {
        const ssize_t got = read(in, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        for (ssize_t i = 0; i < got; ++i) {
            const char c = buffer[i];
            if (c != '\n') {
                if (length + 1 < sizeof line - 4)
                    line[4 + length++] = c;
                else
                    tooLong = true;
                continue;
            }
            line[4 + length] = '\n';
            if (!tooLong && std::memchr(line + 4, '/', length)) {
                std::memcpy(line, "map ", 4);
                if (gatheredLength + length + 5 > sizeof gathered) {
                    quorvex::safe_write_all(out, gathered, gatheredLength);
                    gatheredLength = 0;
                }
                std::memcpy(gathered + gatheredLength, line, length + 5);
                gatheredLength += length + 5;
            }
            length = 0;
            tooLong = false;
        }
    }
    close(in);
    quorvex::safe_write_all(out, gathered, gatheredLength);
    const int noted = std::min(gNotedMappingCount.load(std::memory_order_acquire), MAX_NOTED_MAPPINGS);
    for (int i = 0; i < noted; ++i) {
        const NotedMapping& m = gNotedMappings[i];
        if (!m.ready.load(std::memory_order_acquire))
            continue;
        quorvex::SafeMessage text;
        text.str("map ").hex(m.start).str("-").hex(m.end).str(" r-xp ").hex(m.offset).str(" 00:00 0 ").str(m.path);
        text.str("\n").writeTo(out);
    }
}

} // namespace

bool writeModulesFile(const char* path)
{
    scan(gAtEnd);
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    quorvex::SafeMessage heading;
    heading.str("# zor modules 1: load address, build id, loaded|added|removed, path\n");
    heading.writeTo(fd);
    for (int i = 0; i < gAtEnd.count; ++i)
        writeModule(fd, gAtEnd.modules[i], find(gAtStart, gAtEnd.modules[i]) ? "loaded" : "added");
    for (int i = 0; i < gAtStart.count; ++i) {
        if (!find(gAtEnd, gAtStart.modules[i]))
            writeModule(fd, gAtStart.modules[i], "removed");
    }
    for (int i = 0; i < gBetween.count; ++i) {
        if (!find(gAtEnd, gBetween.modules[i]))
            writeModule(fd, gBetween.modules[i], "transient");
    }
    writeFileMappings(fd);
    close(fd);
    return true;
}

} // namespace zorsampler

extern "C" void zs_note_file_mapping(void* address, size_t length, int, int fd, long long offset)
{
    using namespace zorsampler;
    if (length == 0 || offset < 0)
        return;
    const int i = gNotedMappingCount.fetch_add(1, std::memory_order_relaxed);
    if (i >= MAX_NOTED_MAPPINGS)
        return;
    NotedMapping& m = gNotedMappings[i];
    quorvex::SafeMessage link;
    link.str("/proc/self/fd/").dec(fd);
    const ssize_t size = readlink(link.text(), m.path, sizeof m.path - 1);
    if (size <= 0 || m.path[0] != '/')
        return;
    m.path[size] = '\0';
    m.start = reinterpret_cast<unsigned long long>(address);
    m.end = m.start + length;
    m.offset = static_cast<unsigned long long>(offset);
    m.ready.store(true, std::memory_order_release);
}

extern "C" void zs_before_unload(void)
{
    using namespace zorsampler;
    if (!gStarted)
        return;
    // Nothing was loaded since the last look: what could go now is known.
    unsigned long long adds = 0;
    dl_iterate_phdr(countAdds, &adds);
    while (gBetweenLock.test_and_set(std::memory_order_acquire))
        sched_yield();
    if (!gScannedBetween || adds != gAddsAtScan) {
        gScannedBetween = true;
        gAddsAtScan = adds;
        scan(gScratch);
        for (int i = 0; i < gScratch.count && gBetween.count < MAX_MODULES; ++i) {
            if (!find(gAtStart, gScratch.modules[i]) && !find(gBetween, gScratch.modules[i]))
                gBetween.modules[gBetween.count++] = gScratch.modules[i];
        }
    }
    gBetweenLock.clear(std::memory_order_release);
}
