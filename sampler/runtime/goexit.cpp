// Go programs end through the exit system call itself: the Go runtime's
// exit routine never passes the C library's exit, _exit or a destructor,
// where the sampler writes what it sampled, so a Go program's run used to
// end with nothing written. Where the program is a Go program whose exit
// routine is the one this code knows, its first instructions become a jump
// to an entry here that writes the samples first and then ends the process
// with the same status.
//
// The routine, as the Go runtime has it on x86-64 Linux (its "ABI0": the
// argument on the stack, above the return address):
//     movl 8(%rsp), %edi; movl $231, %eax; syscall; ret
// A routine that reads otherwise is left alone.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "modules.h"
#include "runtime.h"

namespace {

const unsigned char GoExitCode[] = {0x8b, 0x7c, 0x24, 0x08, 0xb8, 0xe7, 0x00, 0x00, 0x00, 0x0f, 0x05, 0xc3};
// movabs $entry, %rax; jmp *%rax: as long as the routine, and %rax is the
// routine's own scratch register.
const std::size_t JumpSize = 12;
static_assert(sizeof GoExitCode == JumpSize, "the jump takes the routine's place exactly");

// The exit runs on a stack of its own: the Go runtime's stacks are small and
// grow only under its own control, and writing the samples needs more.
const std::size_t ExitStackSize = 256 * 1024;

} // namespace

extern "C" {
ZS_HIDDEN __attribute__((aligned(16))) char zs_go_exit_stack[ExitStackSize];
ZS_HIDDEN int zs_go_exit_taken;
ZS_HIDDEN void zs_go_exit_entry(void);

ZS_HIDDEN __attribute__((noreturn, used)) void zs_go_exit(int status)
{
    zs_before_immediate_exit();
    for (;;)
        syscall(SYS_exit_group, status);
}
}

// The first thread to exit takes the stack and ends the process; any other
// that exits meanwhile waits for that end.
__asm__(".text\n"
        ".globl zs_go_exit_entry\n"
        ".hidden zs_go_exit_entry\n"
        ".type zs_go_exit_entry,@function\n"
        "zs_go_exit_entry:\n"
        "    movl $1, %eax\n"
        "    xchgl %eax, zs_go_exit_taken(%rip)\n"
        "    testl %eax, %eax\n"
        "    jnz 2f\n"
        "    movl 8(%rsp), %edi\n"
        "    leaq zs_go_exit_stack+262144(%rip), %rsp\n"
        "    call zs_go_exit\n"
        "    ud2\n"
        "2:  movl $34, %eax\n" // pause
        "    syscall\n"
        "    jmp 2b\n"
        ".size zs_go_exit_entry, .-zs_go_exit_entry\n");
static_assert(ExitStackSize == 262144, "the entry's stack top");

namespace zorsampler {

namespace {

int firstObjectBias(dl_phdr_info* info, size_t, void* data)
{
    *static_cast<std::uintptr_t*>(data) = info->dlpi_addr;
    return 1;
}

// The address of the Go runtime's exit routine in the running program, 0
// when the program isn't a Go program or has no symbols to find it by.
std::uintptr_t findGoExit()
{
    const int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    struct stat info;
    void* mapped = MAP_FAILED;
    if (fstat(fd, &info) == 0 && info.st_size >= static_cast<off_t>(sizeof(Elf64_Ehdr)))
        mapped = mmap(nullptr, static_cast<std::size_t>(info.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (mapped == MAP_FAILED)
        return 0;
    const std::size_t size = static_cast<std::size_t>(info.st_size);
    const auto* data = static_cast<const unsigned char*>(mapped);
    const auto* header = static_cast<const Elf64_Ehdr*>(mapped);
    std::uintptr_t found = 0;
    const auto within = [size](std::uint64_t offset, std::uint64_t length) {
        return offset <= size && length <= size - offset;
    };
    if (std::memcmp(header->e_ident, ELFMAG, SELFMAG) == 0 && header->e_ident[EI_CLASS] == ELFCLASS64
        && header->e_shentsize == sizeof(Elf64_Shdr) && header->e_shstrndx < header->e_shnum
        && within(header->e_shoff, std::uint64_t(header->e_shnum) * sizeof(Elf64_Shdr))) {
        const auto* sections = reinterpret_cast<const Elf64_Shdr*>(data + header->e_shoff);
        const Elf64_Shdr& names = sections[header->e_shstrndx];
        bool go = false;
        const Elf64_Shdr* symbols = nullptr;
        const Elf64_Shdr* text = nullptr;
        const auto named = [&](const Elf64_Shdr& section, const char* name) {
            return section.sh_name < names.sh_size
                && std::strncmp(reinterpret_cast<const char*>(data + names.sh_offset + section.sh_name), name,
                                names.sh_size - section.sh_name)
                == 0;
        };
        for (int i = 0; i < header->e_shnum && within(names.sh_offset, names.sh_size); ++i) {
            const Elf64_Shdr& section = sections[i];
            go = go || named(section, ".go.buildinfo");
            if (named(section, ".text") && section.sh_type == SHT_PROGBITS)
                text = &section;
            if (section.sh_type == SHT_SYMTAB && section.sh_link < header->e_shnum)
                symbols = &section;
        }
        if (go && symbols && within(symbols->sh_offset, symbols->sh_size)
            && within(sections[symbols->sh_link].sh_offset, sections[symbols->sh_link].sh_size)) {
            const Elf64_Shdr& strings = sections[symbols->sh_link];
            const char* text = reinterpret_cast<const char*>(data + strings.sh_offset);
            const auto* entries = reinterpret_cast<const Elf64_Sym*>(data + symbols->sh_offset);
            const std::size_t count = symbols->sh_size / sizeof(Elf64_Sym);
            // The routine keeps its assembly name; "runtime.exit" alone is
            // that of Go releases before the register-based calls.
            std::uintptr_t plain = 0;
            for (std::size_t i = 0; i < count && !found; ++i) {
                const Elf64_Sym& symbol = entries[i];
                if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_name >= strings.sh_size)
                    continue;
                const char* name = text + symbol.st_name;
                const std::size_t room = strings.sh_size - symbol.st_name;
                if (strnlen(name, room) == room)
                    continue;
                if (std::strcmp(name, "runtime.exit.abi0") == 0)
                    found = symbol.st_value;
                else if (std::strcmp(name, "runtime.exit") == 0)
                    plain = symbol.st_value;
            }
            if (!found)
                found = plain;
        }
        // A program stripped of its symbols (go build -ldflags=-s): the
        // routine by its bytes, where they are found once in the code.
        if (go && !found && text && within(text->sh_offset, text->sh_size)) {
            const unsigned char* code = data + text->sh_offset;
            const unsigned char* end = code + text->sh_size;
            const unsigned char* first = nullptr;
            int matches = 0;
            for (const void* at = code; (at = memmem(at, std::size_t(end - static_cast<const unsigned char*>(at)),
                                                   GoExitCode, sizeof GoExitCode));
                 at = static_cast<const unsigned char*>(at) + 1) {
                if (++matches == 1)
                    first = static_cast<const unsigned char*>(at);
            }
            if (matches == 1)
                found = text->sh_addr + std::uintptr_t(first - code);
        }
        if (found) {
            std::uintptr_t bias = 0;
            dl_iterate_phdr(firstObjectBias, &bias);
            found += bias;
        }
    }
    munmap(mapped, size);
    return found;
}

} // namespace

void hookGoExit()
{
    static bool tried = false;
    if (tried)
        return;
    tried = true;
    const std::uintptr_t address = findGoExit();
    if (!address || std::memcmp(reinterpret_cast<const void*>(address), GoExitCode, sizeof GoExitCode) != 0)
        return;
    const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = address & ~(page - 1);
    const std::size_t length = ((address + JumpSize + page - 1) & ~(page - 1)) - first;
    void* pages = reinterpret_cast<void*>(first);
    if (mprotect(pages, length, PROT_READ | PROT_WRITE | PROT_EXEC) != 0)
        return;
    unsigned char jump[JumpSize] = {0x48, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xe0};
    const std::uintptr_t entry = reinterpret_cast<std::uintptr_t>(&zs_go_exit_entry);
    std::memcpy(jump + 2, &entry, sizeof entry);
    std::memcpy(reinterpret_cast<void*>(address), jump, JumpSize);
    mprotect(pages, length, PROT_READ | PROT_EXEC);
}

} // namespace zorsampler
