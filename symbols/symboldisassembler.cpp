#include "symboldisassembler.h"

#include <capstone/capstone.h>
#include <dlfcn.h>

#include <mutex>

#include "symboltable.h"

namespace {

// Capstone, opened when first needed: its tables hold some 77,000 pointers
// for the loader to relocate, 2 ms of every host's start on a run that
// never disassembles before its end.
struct CapstoneCalls
{
    decltype(&cs_open) open = nullptr;
    decltype(&cs_option) option = nullptr;
    decltype(&cs_close) close = nullptr;
    decltype(&cs_malloc) malloc = nullptr;
    decltype(&cs_free) free = nullptr;
    decltype(&cs_disasm_iter) disasmIter = nullptr;
};

const CapstoneCalls* capstone()
{
    static CapstoneCalls calls;
    static bool loaded = false;
    static std::once_flag once;
    std::call_once(once, []() {
        void* library = dlopen(ZOR_CAPSTONE_SONAME, RTLD_NOW | RTLD_LOCAL);
        if (!library)
            return;
        calls.open = reinterpret_cast<decltype(&cs_open)>(dlsym(library, "cs_open"));
        calls.option = reinterpret_cast<decltype(&cs_option)>(dlsym(library, "cs_option"));
        calls.close = reinterpret_cast<decltype(&cs_close)>(dlsym(library, "cs_close"));
        calls.malloc = reinterpret_cast<decltype(&cs_malloc)>(dlsym(library, "cs_malloc"));
        calls.free = reinterpret_cast<decltype(&cs_free)>(dlsym(library, "cs_free"));
        calls.disasmIter = reinterpret_cast<decltype(&cs_disasm_iter)>(dlsym(library, "cs_disasm_iter"));
        loaded = calls.open && calls.option && calls.close && calls.malloc && calls.free && calls.disasmIter;
    });
    return loaded ? &calls : nullptr;
}

// Instructions that read or write memory through the stack or the string
// registers, with no memory operand of their own making.
bool touchesMemoryImplicitly(const cs_insn& insn)
{
    switch (insn.id) {
    case X86_INS_PUSH: case X86_INS_PUSHAW: case X86_INS_PUSHAL: case X86_INS_PUSHF: case X86_INS_PUSHFD:
    case X86_INS_PUSHFQ: case X86_INS_POP: case X86_INS_POPAW: case X86_INS_POPAL: case X86_INS_POPF:
    case X86_INS_POPFD: case X86_INS_POPFQ: case X86_INS_CALL: case X86_INS_RET: case X86_INS_LEAVE:
    case X86_INS_ENTER:
        return true;
    case X86_INS_MOVSB: case X86_INS_MOVSW: case X86_INS_MOVSD: case X86_INS_MOVSQ: case X86_INS_STOSB:
    case X86_INS_STOSW: case X86_INS_STOSD: case X86_INS_STOSQ: case X86_INS_LODSB: case X86_INS_LODSW:
    case X86_INS_LODSD: case X86_INS_LODSQ: case X86_INS_SCASB: case X86_INS_SCASW: case X86_INS_SCASD:
    case X86_INS_SCASQ: case X86_INS_CMPSB: case X86_INS_CMPSW: case X86_INS_CMPSD: case X86_INS_CMPSQ: {
        // movsd and cmpsd share their ids with the SSE forms, which name an
        // XMM register.
        const cs_x86& x86 = insn.detail->x86;
        for (int i = 0; i < x86.op_count; ++i) {
            if (x86.operands[i].type == X86_OP_REG && x86.operands[i].reg >= X86_REG_XMM0
                && x86.operands[i].reg <= X86_REG_XMM31)
                return false;
        }
        return true;
    }
    default:
        return false;
    }
}

} // namespace

SymbolDisassembler::SymbolDisassembler(SymbolTable& symbols, int id)
    : mSymbols(symbols)
    , mId(id)
    , mHandle(0)
    , mOpen(false)
    , mOpenTried(false)
{
}

SymbolDisassembler::~SymbolDisassembler()
{
    if (mLoading.joinable())
        mLoading.join();
    if (mOpen) {
        csh handle = mHandle;
        capstone()->close(&handle);
    }
}

void SymbolDisassembler::loadInBackground()
{
    if (mOpenTried || mLoading.joinable())
        return;
    try {
        mLoading = std::thread([]() { capstone(); });
    } catch (const std::system_error&) {
        // Loaded when first needed instead.
    }
}

bool SymbolDisassembler::open()
{
    if (mOpenTried)
        return mOpen;
    mOpenTried = true;
    const CapstoneCalls* calls = capstone();
    csh handle = 0;
    if (calls && calls->open(CS_ARCH_X86, CS_MODE_64, &handle) == CS_ERR_OK) {
        calls->option(handle, CS_OPT_SYNTAX, CS_OPT_SYNTAX_ATT);
        calls->option(handle, CS_OPT_DETAIL, CS_OPT_ON);
        mHandle = handle;
        mOpen = true;
    }
    return mOpen;
}

QMap<unsigned long long, Instruction> SymbolDisassembler::decode(const unsigned char* bytes, size_t size,
                                                                 unsigned long long address,
                                                                 unsigned long long* end)
{
    QMap<unsigned long long, Instruction> result;
    *end = 0;
    if (size == 0 || !open())
        return result;
    const CapstoneCalls* calls = capstone();
    cs_insn* insn = calls->malloc(mHandle);
    const uint8_t* code = bytes;
    uint64_t at = address;
    while (size > 0 && calls->disasmIter(mHandle, &code, &size, &at, insn)) {
        result.insert(insn->address, Instruction(QString::fromLatin1(insn->mnemonic), QString::fromLatin1(insn->op_str),
                                                 false, touchesMemoryImplicitly(*insn)));
    }
    calls->free(insn, 1);
    if (!result.isEmpty())
        *end = at;
    return result;
}

QMap<unsigned long long, Instruction> SymbolDisassembler::disassemble(unsigned long long start, long long length,
                                                                      unsigned long long* end)
{
    *end = 0;
    unsigned long long from = start;
    unsigned long long count = static_cast<unsigned long long>(length);
    bool wholeFunction = false;
    if (length <= 0) {
        FunctionBounds bounds;
        if (!mSymbols.functionBounds(start, &bounds))
            return QMap<unsigned long long, Instruction>();
        from = bounds.start;
        count = bounds.end - bounds.start;
        wholeFunction = true;
    }
    const QByteArray bytes = mSymbols.code(from, count);
    QMap<unsigned long long, Instruction> result =
        decode(reinterpret_cast<const unsigned char*>(bytes.constData()), size_t(bytes.size()), from, end);
    if (wholeFunction && !result.isEmpty())
        result.begin()->symbolStart = true;
    // Functions that start inside a range: a program counter at the first
    // instruction of one ran nothing before it there.
    if (!wholeFunction && !result.isEmpty()) {
        for (unsigned long long start : mSymbols.functionStarts(from, *end)) {
            const auto at = result.find(start);
            if (at != result.end())
                at->symbolStart = true;
        }
    }
    return result;
}

Position SymbolDisassembler::position(unsigned long long address)
{
    const SymbolPosition where = mSymbols.position(address);
    return Position(where.function, where.file, where.line, -1);
}
