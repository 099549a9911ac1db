// Arming without a debugger. A host that starts the program itself hands it
// one end of a socket, named by ZOR_SAMPLER_ARMING_FD ("FD,HOSTPID"). The
// sampler stands in
// front of the C library's start routine and, where main would begin, after
// the program's constructors, answers the host's questions about its entry
// points and calls them until told to go on: what a debugger stopped at main
// gives, without a debugger's start and a round trip through it per call.
//
// One request per line, one answer per line:
//   call NAME ARG...   ARG is iN (an integer) or sHEX (a string's bytes);
//                      "ok N", N the int the function returns
//   addr NAME          "ok N", the address of NAME
//   str NAME           "ok HEX", the text at NAME
//   set NAME N         "ok", after the int at NAME is N
//   go                 no answer: the channel closes and main runs
// A name not found gets "nosym"; a request not understood "bad". The
// sampler opens with "ready ADDRESS", the address main returns to.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <vector>
#include <sys/prctl.h>
#include <unistd.h>

#if defined(__x86_64__)

namespace {

const char ARMING_VARIABLE[] = "ZOR_SAMPLER_ARMING_FD";

using MainFunction = int (*)(int, char**, char**);
using StartMain = int (*)(MainFunction, int, char**, void (*)(), void (*)(), void (*)(), void*);

int gArmingFd = -1;
long gHostPid = 0;

// Looked up when the library loads, before the sampler may arm: dlsym takes
// the loader's lock, which a sampled thread's unwinding takes too.
StartMain gRealStart;
__attribute__((constructor(101))) void resolveRealStart()
{
    gRealStart = reinterpret_cast<StartMain>(dlsym(RTLD_NEXT, "__libc_start_main"));
}

bool writeAll(int fd, const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += std::size_t(n);
    }
    return true;
}

// The next line without its newline; false at the end of the channel.
bool readLine(int fd, std::string& buffer, std::string& line)
{
    for (;;) {
        const std::size_t newline = buffer.find('\n');
        if (newline != std::string::npos) {
            line.assign(buffer, 0, newline);
            buffer.erase(0, newline + 1);
            return true;
        }
        char chunk[4096];
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        buffer.append(chunk, std::size_t(n));
    }
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

std::string hexOf(const char* text)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const char* c = text; *c; ++c) {
        out += digits[(unsigned char)*c >> 4];
        out += digits[(unsigned char)*c & 15];
    }
    return out;
}

bool parseInteger(const char* text, long* value)
{
    if (!*text)
        return false;
    char* end = nullptr;
    errno = 0;
    *value = std::strtol(text, &end, 10);
    return errno == 0 && *end == '\0';
}

// The request's words, split at single spaces.
std::size_t splitWords(std::string& request, char* words[], std::size_t most)
{
    std::size_t count = 0;
    char* word = &request[0];
    while (*word && count < most) {
        words[count++] = word;
        char* space = std::strchr(word, ' ');
        if (!space)
            break;
        *space = '\0';
        word = space + 1;
    }
    return count;
}

std::string answer(std::string request, std::vector<std::string>& strings)
{
    char* words[9];
    const std::size_t count = splitWords(request, words, 9);
    if (count < 2)
        return "bad";
    void* symbol = dlsym(RTLD_DEFAULT, words[1]);
    const std::string verb = words[0];
    if (verb == "call") {
        long args[6] = {0, 0, 0, 0, 0, 0};
        if (count > 8)
            return "bad";
        strings.clear();
        strings.reserve(6);
        for (std::size_t i = 2; i < count; ++i) {
            const char* arg = words[i];
            if (arg[0] == 'i') {
                if (!parseInteger(arg + 1, &args[i - 2]))
                    return "bad";
            } else if (arg[0] == 's') {
                std::string text;
                for (const char* c = arg + 1; c[0] && c[1]; c += 2) {
                    const int high = hexDigit(c[0]), low = hexDigit(c[1]);
                    if (high < 0 || low < 0)
                        return "bad";
                    text += char(high * 16 + low);
                }
                strings.push_back(text);
                args[i - 2] = long(strings.back().c_str());
            } else {
                return "bad";
            }
        }
        if (!symbol)
            return "nosym";
        // The entry points take integers and pointers and return int; in
        // the registers of this machine's calls, extra arguments do no harm.
        using Entry = long (*)(long, long, long, long, long, long);
        const int result = int(reinterpret_cast<Entry>(symbol)(args[0], args[1], args[2], args[3], args[4], args[5]));
        return "ok " + std::to_string(result);
    }
    if (!symbol)
        return count == 2 || verb == "set" ? "nosym" : "bad";
    if (verb == "addr" && count == 2)
        return "ok " + std::to_string(reinterpret_cast<unsigned long>(symbol));
    if (verb == "str" && count == 2)
        return "ok " + hexOf(static_cast<const char*>(symbol));
    long value = 0;
    if (verb == "set" && count == 3 && parseInteger(words[2], &value)) {
        *static_cast<volatile int*>(symbol) = int(value);
        return "ok";
    }
    return "bad";
}

} // namespace

extern "C" {

__attribute__((visibility("hidden"))) MainFunction zs_program_main;
__attribute__((visibility("hidden"))) int zs_main_standin(int, char**, char**);

// Runs where main would, with main's return address: answers the host until
// it says go.
__attribute__((visibility("hidden"))) void zs_serve_arming(unsigned long boundary)
{
    const int fd = gArmingFd;
    gArmingFd = -1;
    // A debugger that the host starts later (to stop the program for the
    // user) is the host's child, not an ancestor of the program: where the
    // kernel lets only ancestors attach, it may attach here.
    if (gHostPid > 0)
        prctl(PR_SET_PTRACER, gHostPid, 0, 0, 0);
    char ready[64];
    std::snprintf(ready, sizeof ready, "ready 0x%016lx\n", boundary);
    std::string buffer, line;
    std::vector<std::string> strings;
    if (writeAll(fd, ready)) {
        while (readLine(fd, buffer, line) && line != "go") {
            if (!writeAll(fd, answer(line, strings) + "\n"))
                break;
        }
    }
    close(fd);
}

// The C library calls the program's main through this, which hands on to
// it with a jump, so that main returns where it always does and no frame of
// the sampler's stays under it.
asm(R"(
    .text
    .globl zs_main_standin
    .hidden zs_main_standin
    .type zs_main_standin, @function
zs_main_standin:
    .cfi_startproc
    endbr64
    subq $24, %rsp
    .cfi_adjust_cfa_offset 24
    movq %rdi, (%rsp)
    movq %rsi, 8(%rsp)
    movq %rdx, 16(%rsp)
    movq 24(%rsp), %rdi
    call zs_serve_arming
    movq (%rsp), %rdi
    movq 8(%rsp), %rsi
    movq 16(%rsp), %rdx
    addq $24, %rsp
    .cfi_adjust_cfa_offset -24
    jmp *zs_program_main(%rip)
    .cfi_endproc
    .size zs_main_standin, .-zs_main_standin
)");

__attribute__((visibility("default"))) int __libc_start_main(MainFunction main, int argc, char** argv,
                                                             void (*init)(), void (*fini)(), void (*rtldFini)(),
                                                             void* stackEnd)
{
    const StartMain real = gRealStart;
    // Taken out of the environment at once: neither the program nor what it
    // starts sees it.
    const char* arming = getenv(ARMING_VARIABLE);
    long fd = -1;
    char text[64] = "";
    if (arming && std::strlen(arming) < sizeof text)
        std::strcpy(text, arming);
    char* comma = std::strchr(text, ',');
    if (comma) {
        *comma = '\0';
        if (!parseInteger(comma + 1, &gHostPid))
            gHostPid = 0;
    }
    if (parseInteger(text, &fd) && fd >= 0 && fd < 65536 && fcntl(int(fd), F_GETFD) >= 0) {
        fcntl(int(fd), F_SETFD, FD_CLOEXEC);
        gArmingFd = int(fd);
        zs_program_main = main;
        main = zs_main_standin;
    }
    if (arming)
        unsetenv(ARMING_VARIABLE);
    return real(main, argc, argv, init, fini, rtldFini, stackEnd);
}

} // extern "C"

#endif
