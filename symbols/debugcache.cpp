#include "debugcache.h"

#include "envswitch.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gelf.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// Whether the file holds debug information at all and any of its sections
// is compressed.
struct Contents
{
    bool debugInfo = false;
    bool compressed = false;
};

Contents contentsOf(Elf* elf)
{
    Contents contents;
    size_t names = 0;
    if (elf_getshdrstrndx(elf, &names) != 0)
        return contents;
    for (Elf_Scn* section = elf_nextscn(elf, nullptr); section; section = elf_nextscn(elf, section)) {
        GElf_Shdr header;
        if (!gelf_getshdr(section, &header))
            continue;
        if ((header.sh_flags & SHF_COMPRESSED) != 0)
            contents.compressed = true;
        const char* name = elf_strptr(elf, names, header.sh_name);
        if (name && std::strcmp(name, ".debug_info") == 0 && header.sh_type == SHT_PROGBITS)
            contents.debugInfo = true;
    }
    return contents;
}

// The copy at path, if it is whole, plain and describes the build `id`.
int openCopy(const QByteArray& path, const unsigned char* id, int idLength)
{
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    bool good = false;
    if (Elf* elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr)) {
        const void* found = nullptr;
        const ssize_t length = dwelf_elf_gnu_build_id(elf, &found);
        const Contents contents = contentsOf(elf);
        good = length == idLength && std::memcmp(found, id, size_t(idLength)) == 0 && contents.debugInfo
            && !contents.compressed;
        elf_end(elf);
    }
    if (!good) {
        ::close(fd);
        return -1;
    }
    // Its time of last use, for the eviction of the oldest.
    futimens(fd, nullptr);
    return fd;
}

// Removes the least recently used copies until the rest fit the budget;
// `keep` stays whatever its age.
void evict(const QString& directory, const QString& keep)
{
    QDir dir(directory);
    const QFileInfoList copies = dir.entryInfoList({QStringLiteral("*.debug")}, QDir::Files, QDir::Time | QDir::Reversed);
    qint64 total = 0;
    for (const QFileInfo& copy : copies)
        total += copy.size();
    for (const QFileInfo& copy : copies) {
        if (total <= DebugCache::Budget)
            break;
        if (copy.absoluteFilePath() == keep)
            continue;
        if (QFile::remove(copy.absoluteFilePath()))
            total -= copy.size();
    }
}

// Writes a plain copy of the compressed debug file `source` to path and
// opens it; -1 when the file is not compressed or the copy failed, in which
// case nothing is left behind.
int storeCopy(int source, const QByteArray& path, const QString& directory)
{
    elf_version(EV_CURRENT);
    Elf* elf = elf_begin(source, ELF_C_READ_MMAP, nullptr);
    if (!elf)
        return -1;
    const Contents contents = contentsOf(elf);
    elf_end(elf);
    if (!contents.compressed || !contents.debugInfo)
        return -1;
    struct stat status;
    if (fstat(source, &status) != 0 || !QDir().mkpath(directory))
        return -1;

    QByteArray temporary = path + ".XXXXXX";
    const int out = mkostemp(temporary.data(), O_CLOEXEC);
    if (out < 0)
        return -1;
    bool written = true;
    off_t offset = 0;
    while (written && offset < status.st_size) {
        const ssize_t sent = sendfile(out, source, &offset, size_t(status.st_size - offset));
        written = sent > 0;
    }
    // libelf lays the sections out anew once they are inflated.
    elf = written ? elf_begin(out, ELF_C_RDWR, nullptr) : nullptr;
    written = elf != nullptr;
    for (Elf_Scn* section = elf ? elf_nextscn(elf, nullptr) : nullptr; written && section;
         section = elf_nextscn(elf, section)) {
        GElf_Shdr header;
        if (gelf_getshdr(section, &header) && (header.sh_flags & SHF_COMPRESSED) != 0)
            written = elf_compress(section, 0, 0) >= 0;
    }
    if (written)
        written = elf_update(elf, ELF_C_WRITE) >= 0;
    if (elf)
        elf_end(elf);
    written = written && fchmod(out, 0644) == 0 && ::close(out) == 0;
    if (!written || ::rename(temporary.constData(), path.constData()) != 0) {
        ::unlink(temporary.constData());
        return -1;
    }
    evict(directory, QFile::decodeName(path));
    return ::open(path.constData(), O_RDONLY | O_CLOEXEC);
}

} // namespace

QString DebugCache::directory()
{
    EnvSwitch setting("DEBUG_CACHE");
    if (setting.isSet()) {
        const QString text = setting.text();
        if (!EnvSwitch::valueMeansOn(text.toLocal8Bit()))
            return QString();
        if (text.startsWith(QLatin1Char('/')))
            return text;
    }
    QString base = qEnvironmentVariable("XDG_CACHE_HOME");
    if (!base.startsWith(QLatin1Char('/'))) {
        const QString home = QDir::homePath();
        if (home.isEmpty() || home == QLatin1String("/"))
            return QString();
        base = home + QStringLiteral("/.cache");
    }
    return base + QStringLiteral("/zor/debug");
}

int DebugCache::findDebuginfo(Dwfl_Module* module, void** userdata, const char* moduleName, Dwarf_Addr base,
                              const char* fileName, const char* debuglinkFile, GElf_Word debuglinkCrc,
                              char** debuginfoFileName)
{
    // Once the module's own debug file is open, libdwfl asks again, for the
    // file that dwz made of what several debug files share
    // (.gnu_debugaltlink): a file of another build, whose names the
    // module's own copy would give wrong. It is small; libdw reads it as it
    // is.
    Dwarf_Addr dwarfBias = 0;
    dwfl_module_info(module, nullptr, nullptr, nullptr, &dwarfBias, nullptr, nullptr, nullptr);
    if (dwarfBias != Dwarf_Addr(-1))
        return dwfl_standard_find_debuginfo(module, userdata, moduleName, base, fileName, debuglinkFile, debuglinkCrc,
                                            debuginfoFileName);
    const unsigned char* id = nullptr;
    GElf_Addr idAddress = 0;
    const int idLength = dwfl_module_build_id(module, &id, &idAddress);
    const QString dir = idLength > 0 ? directory() : QString();
    const QByteArray path = dir.isEmpty()
        ? QByteArray()
        : QFile::encodeName(dir) + '/' + QByteArray::fromRawData(reinterpret_cast<const char*>(id), idLength).toHex()
            + ".debug";
    if (!path.isEmpty()) {
        const int fd = openCopy(path, id, idLength);
        if (fd >= 0) {
            *debuginfoFileName = strdup(path.constData());
            return fd;
        }
    }
    const int fd = dwfl_standard_find_debuginfo(module, userdata, moduleName, base, fileName, debuglinkFile,
                                                debuglinkCrc, debuginfoFileName);
    if (fd < 0 || path.isEmpty())
        return fd;
    const int copy = storeCopy(fd, path, dir);
    if (copy < 0)
        return fd;
    ::close(fd);
    free(*debuginfoFileName);
    *debuginfoFileName = strdup(path.constData());
    return copy;
}
