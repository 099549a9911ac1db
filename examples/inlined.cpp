// zor-inlined: a C++ program whose hot spot is a function that the compiler
// inlines into its caller (built with -O2 -g), so that a profile shows the
// inlined function as a node of its own under the function it sits in.
//
//   zor-inlined [--seconds S]   run for S seconds (default 3)
//
// Nearly all the time goes to Kernel::mix, inlined into Kernel::run: most
// of it to Kernel::step, inlined into mix in turn, about a tenth to
// Kernel::fold, a function of its own that mix calls.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

volatile std::uint64_t sink;

} // namespace

namespace Kernel {

// Forced inline: the point of the program.
inline __attribute__((always_inline)) std::uint64_t step(std::uint64_t x)
{
    x = x * 6364136223846793005ULL + 1442695040888963407ULL;
    return x ^ (x >> 29);
}

__attribute__((noinline)) std::uint64_t fold(std::uint64_t x, int steps)
{
    for (int i = 0; i < steps; ++i)
        x = (x << 7 | x >> 57) + 0x9E3779B97F4A7C15ULL;
    return x;
}

// Inlined as well, with code of its own and a call out of it: a frame
// inlined in the middle of a stack and one at its end.
inline __attribute__((always_inline)) std::uint64_t mix(std::uint64_t x, int steps)
{
    for (int i = 0; i < steps; ++i)
        x = step(x);
    return fold(x, steps / 4);
}

__attribute__((noinline)) std::uint64_t run(std::uint64_t seed, long rounds)
{
    std::uint64_t x = seed;
    for (long r = 0; r < rounds; ++r)
        x = mix(x, 4096);
    return x;
}

} // namespace Kernel

int main(int argc, char** argv)
{
    double seconds = 3;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: zor-inlined [--seconds S]\n");
            return 2;
        }
    }
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    std::uint64_t x = sink + 1;
    while (std::chrono::steady_clock::now() < end)
        x = Kernel::run(x, 100);
    sink = x;
    std::printf("zor-inlined: ran %.3f s in Kernel::step and Kernel::fold, under Kernel::mix inlined into Kernel::run\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return 0;
}
