#include "ssimplebacktrace.h"
#include "sfileio.h"
#include "zor_assert.h"
#include "zor_print.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace quorvex {

SSimpleBacktrace::StoragePolicy SSimpleBacktrace::mStoragePolicy = SSimpleBacktrace::StoragePolicyGrowing;
bool SSimpleBacktrace::mStoragePolicyLocked = false;
TraceArena* SSimpleBacktrace::mFrameArena = nullptr;

namespace {
// Reservation under the growing policy: enough for most stacks.
const std::size_t GROWING_RESERVATION = 30;
// Frames are read in slices so that a corrupt count cannot claim memory
// that the file does not back.
const std::size_t READ_SLICE_FRAMES = 8192;
// The least room taken from the arena: most stacks fit.
const std::size_t ARENA_FIRST_FRAMES = 16;
}

SSimpleBacktrace::SSimpleBacktrace()
    : mArena(nullptr), mUnwindStatus(UNW_ZOR_NOT_SET), mTid(0), mValid(false), mStopsAtCallingFrame(false)
{
    mStoragePolicyLocked = true;
    reserveForPolicy();
}

SSimpleBacktrace::SSimpleBacktrace(const SSimpleBacktrace& other)
    : mArena(nullptr), mUnwindStatus(UNW_ZOR_NOT_SET), mTid(0), mValid(false), mStopsAtCallingFrame(false)
{
    mStoragePolicyLocked = true;
    reserveForPolicy();
    *this = other;
}

SSimpleBacktrace& SSimpleBacktrace::operator=(const SSimpleBacktrace& other)
{
    if (this == &other)
        return *this;
    mUnwindStatus = other.mUnwindStatus;
    mTid = other.mTid;
    mValid = other.mValid;
    mStopsAtCallingFrame = other.mStopsAtCallingFrame;
    std::size_t frames = other.mTrace.size();
    if (mStoragePolicy == StoragePolicyArena && !makeRoom(frames)) {
        frames = mTrace.capacity();
        mUnwindStatus = UNW_ZOR_CUT_SHORT;
    }
    mTrace.assign(other.mTrace.begin(), other.mTrace.begin() + static_cast<std::ptrdiff_t>(frames));
    return *this;
}

void SSimpleBacktrace::reserveForPolicy()
{
    // A trace made while a file is read takes its frames from the reader's
    // arena, and needs no reservation.
    if (const TraceArena::Scope* scope = TraceArena::Scope::current()) {
        backtrace_t(scope->allocator()).swap(mTrace);
        mArena = scope->arena();
        return;
    }
    if (mStoragePolicy == StoragePolicyGrowing)
        mTrace.reserve(GROWING_RESERVATION);
}

bool SSimpleBacktrace::makeRoom(std::size_t frames)
{
    if (mTrace.capacity() >= frames)
        return true;
    std::size_t room = ARENA_FIRST_FRAMES;
    while (room < frames)
        room *= 2;
    if (room > MAX_BACKTRACE_DEPTH && frames <= MAX_BACKTRACE_DEPTH)
        room = MAX_BACKTRACE_DEPTH;
    if (!mFrameArena || !mFrameArena->fits(room * sizeof(unsigned long)))
        return false;
    // The frames left behind stay in the arena, which gives nothing back.
    backtrace_t fresh{TraceAllocator<unsigned long>(mFrameArena)};
    fresh.reserve(room);
    mTrace.swap(fresh);
    mArena = mFrameArena;
    return true;
}

SSimpleBacktrace::StoragePolicy SSimpleBacktrace::storagePolicy()
{
    return mStoragePolicy;
}

void SSimpleBacktrace::setStoragePolicy(StoragePolicy policy)
{
    if (mStoragePolicyLocked) {
        SafeMessage().str("ZOR: Unable to change backtrace storage policy\n").writeTo(2);
        ZOR_ASSERT(false);
    }
    mStoragePolicy = policy;
}

void SSimpleBacktrace::setFrameArena(TraceArena* arena)
{
    mFrameArena = arena;
}

void SSimpleBacktrace::set(const BacktraceData& bt, int tid)
{
    mUnwindStatus = bt.unwindStatus;
    mTid = tid;
    mValid = true;
    mStopsAtCallingFrame = bt.stopsAtCallingFrame;

    if (bt.size == 0) {
        if (mStoragePolicy == StoragePolicyExact) {
            backtrace_t().swap(mTrace);
            mArena = nullptr;
        } else {
            mTrace.clear();
        }
        return;
    }

    std::size_t frames = bt.size;
    switch (mStoragePolicy) {
    case StoragePolicyExact:
        if (mTrace.size() != bt.size) {
            backtrace_t fresh;
            fresh.reserve(bt.size + 1);
            mTrace.swap(fresh);
            mArena = nullptr;
        }
        break;
    case StoragePolicyGrowing:
        break;
    case StoragePolicyArena:
        ZOR_ASSERT(bt.size <= MAX_BACKTRACE_DEPTH);
        if (!makeRoom(frames)) {
            frames = mTrace.capacity();
            mUnwindStatus = UNW_ZOR_CUT_SHORT;
        }
        break;
    default:
        SafeMessage().str("ZOR: Unrecognised backtrace storage policy: ").dec(mStoragePolicy).str("\n").writeTo(2);
        abort();
    }

    // Not resize and copy: that would clear the frames first.
    mTrace.assign(bt.frames, bt.frames + frames);
}

void SSimpleBacktrace::invalidate()
{
    mValid = false;
    mTrace.clear();
    mUnwindStatus = UNW_ZOR_NOT_SET;
    mTid = 0;
}

int SSimpleBacktrace::tid() const
{
    ZOR_ASSERT(mValid);
    return mTid;
}

int SSimpleBacktrace::unwindStatus() const
{
    ZOR_ASSERT(mValid);
    return mUnwindStatus;
}

const backtrace_t& SSimpleBacktrace::trace() const
{
    ZOR_ASSERT(mValid);
    return mTrace;
}

bool SSimpleBacktrace::stopsAtCallingFrame() const
{
    ZOR_ASSERT(mValid);
    return mStopsAtCallingFrame;
}

void SSimpleBacktrace::appendTrace(const backtrace_t& other)
{
    ZOR_ASSERT(!other.empty());
    mTrace.reserve(mTrace.size() + other.size());
    mTrace.insert(mTrace.end(), other.begin(), other.end());
}

void SSimpleBacktrace::printTrace() const
{
    printf("Trace with %lu frames: ", static_cast<unsigned long>(mTrace.size()));
    for (unsigned long frame : mTrace)
        printf(" %p", reinterpret_cast<void*>(frame));
    printf("\n");
    printf("Unwind Status: %i\n", mUnwindStatus);
}

void SSimpleBacktrace::writeToFile(int fd) const
{
    QUORVEX_WRITE(fd, "sbt", 3);
    QUORVEX_WRITE_WIDE(fd, mUnwindStatus);
    QUORVEX_WRITE_WIDE(fd, mTid);
    QUORVEX_WRITE_WIDE(fd, mStopsAtCallingFrame ? 1 : 0);
    QUORVEX_WRITE_UWIDE(fd, mTrace.size());
    for (unsigned long frame : mTrace) {
        const std::uint64_t address = frame;
        QUORVEX_WRITE(fd, &address, sizeof address);
    }
    QUORVEX_WRITE(fd, "/sbt", 4);
}

bool SSimpleBacktrace::readFromFile(int fd)
{
    fileio::RecordInput in(fd);
    return readFrom(in);
}

bool SSimpleBacktrace::readFrom(fileio::RecordInput& in)
{
    static_assert(sizeof(unsigned long) == sizeof(std::uint64_t), "frame addresses are 64-bit words");
    mValid = false;

    // Tag, status, tid, flag and frame count.
    char scratch[3 + 4 * 8];
    const char* head = QUORVEX_VIEW_FROM(in, scratch, sizeof scratch);
    if (!head)
        return false;
    fileio::FieldCursor cursor(head);
    char obuff[3];
    cursor.take(obuff, sizeof obuff);
    ZOR_ASSERT(obuff[0] == 's');
    ZOR_ASSERT(obuff[1] == 'b');
    ZOR_ASSERT(obuff[2] == 't');
    const std::int64_t unwindStatus = cursor.take<std::int64_t>();
    ZOR_ASSERT(unwindStatus >= std::numeric_limits<int>::min());
    ZOR_ASSERT(unwindStatus <= std::numeric_limits<int>::max());
    const std::int64_t tid = cursor.take<std::int64_t>();
    ZOR_ASSERT(tid <= std::numeric_limits<int>::max());
    const std::int64_t stopsAtCallingFrame = cursor.take<std::int64_t>();
    ZOR_ASSERT(stopsAtCallingFrame==0 || stopsAtCallingFrame==1);
    const std::uint64_t numFrames = cursor.take<std::uint64_t>();

    mUnwindStatus = static_cast<int>(unwindStatus);
    mTid = static_cast<int>(tid);
    mStopsAtCallingFrame = stopsAtCallingFrame == 1;

    char cbuff[4];
    mTrace.clear();
    // A reader of a whole file gives its traces their frames from one arena.
    const TraceArena::Scope* scope = numFrames <= READ_SLICE_FRAMES ? TraceArena::Scope::current() : nullptr;
    TraceArena* arena = scope ? scope->arena() : nullptr;
    if (mArena != arena) {
        if (scope)
            backtrace_t(scope->allocator()).swap(mTrace);
        else
            backtrace_t().swap(mTrace);
        mArena = arena;
    }
    if (numFrames <= READ_SLICE_FRAMES) {
        // A real stack and the closing tag in one read, the tag landing in
        // one spare word at the end when the bytes are not at hand.
        const std::size_t n = static_cast<std::size_t>(numFrames);
        const std::size_t bytes = n * sizeof(unsigned long);
        mTrace.resize(n + 1);
        const char* frames = QUORVEX_VIEW_FROM(in, mTrace.data(), bytes + sizeof cbuff);
        if (!frames)
            return false;
        if (frames != reinterpret_cast<const char*>(mTrace.data()))
            std::memcpy(mTrace.data(), frames, bytes);
        std::memcpy(cbuff, frames + bytes, sizeof cbuff);
        mTrace.resize(n);
    } else {
        // A count this large is corrupt unless the file really goes on: grow
        // only as far as it does.
        std::uint64_t done = 0;
        while (done < numFrames) {
            const std::size_t slice =
                static_cast<std::size_t>(std::min<std::uint64_t>(numFrames - done, READ_SLICE_FRAMES));
            mTrace.resize(static_cast<std::size_t>(done) + slice);
            if (!QUORVEX_READ_FROM(in, mTrace.data() + done, slice * sizeof(unsigned long)))
                return false;
            done += slice;
        }
        if (!QUORVEX_READ_FROM(in, cbuff, sizeof cbuff))
            return false;
    }
    ZOR_ASSERT(cbuff[0] == '/');
    ZOR_ASSERT(cbuff[1] == 's');
    ZOR_ASSERT(cbuff[2] == 'b');
    ZOR_ASSERT(cbuff[3] == 't');

    mValid = true;
    return true;
}

} // namespace quorvex

