#include "instructioncategories.h"

#include <QHash>
#include <QStringList>
#include <functional>

namespace {

// Mnemonic lists; step by step, buildSet() turns them into the sets that
// lookups use.
const char* const MemBase[] = {
    "blendpd", "blendps", "blendvpd", "blendvps", "bswap", "cmovb", "cmovbe", "cmovl", "cmovle", "cmovnb",
    "cmovnbe", "cmovnl", "cmovnle", "cmovno", "cmovnp", "cmovns", "cmovnz", "cmovo", "cmovp", "cmovs",
    "cmovz", "cmpxchg", "cmpxchg8b", "extractps", "fbld", "fbstp", "fcmovb", "fcmovbe", "fcmove", "fcmovnb",
    "fcmovnbe", "fcmovne", "fcmovnu", "fcmovu", "fild", "fist", "fistp", "fld1", "fldl2e", "fldl2t", "fldlg2",
    "fldln2", "fldpi", "fldz", "fstp", "fstp1", "fstp8", "fstp9", "fxch", "fxch4", "fxch7", "insertps",
    "lahf", "lods", "movapd", "movaps", "movbe", "movd", "movddup", "movdq2q", "movdqa", "movdqu", "movhlps",
    "movhpd", "movhps", "movlhps", "movlpd", "movlps", "movmskpd", "movmskps", "movq", "movq2dq", "movs",
    "movsd", "movshdup", "movsldup", "movss", "movupd", "movups", "pblendvb", "pblendw", "pextrb", "pextrd",
    "pextrw", "pinsrb", "pinsrd", "sahf", "salc", "setb", "setbe", "setl", "setle", "setnb", "setnbe",
    "setnl", "setnle", "setno", "setnp", "setns", "setnz", "seto", "setp", "sets", "setz", "stos", "xadd",
    "xchg", "xlat", "vpcmov", "kmov", "clevict0", "clevict1", "vprefetch0", "vprefetch1", "vprefetch2",
    "vprefetche0", "vprefetche1", "vprefetche2", "vprefetchenta", "vprefetchnta", "vbroadcastf32x4",
    "vbroadcastf64x4", "vbroadcastsd", "vbroadcastss", "vloadunpackhpd", "vloadunpackhps", "vloadunpacklpd",
    "vloadunpacklps", "vmovnrapd", "vmovnraps", "vmovnrngoapd", "vmovnrngoaps", "vpackstorehpd",
    "vpackstorehps", "vpackstorelpd", "vpackstorelps", "vmovdqa32", "vmovdqa64", "vmovapd", "vmovaps",
};

const char* const MemExtra[] = {
    "movapd", "movaps", "movd", "movq", "movdqa", "vmovdqa32", "vmovdqa64", "movdqu", "vmovdqu8", "vmovdqu16",
    "vmovdqu32", "vmovdqu64", "movhlps", "movhpd", "movhps", "movlhps", "movlpd", "movlps", "movsd", "movss",
    "movupd", "movups", "pmovsx", "pmovzx",
};

const char* const BranchBase[] = {
    "jnae", "jnge", "alter", "call", "callf", "cmppd", "cmpps", "cmps", "cmpsd", "cmpss", "comisd", "comiss",
    "fcom", "fcom2", "fcomi", "fcomip", "fcomp", "fcomp3", "fcomp5", "fcompp", "ficom", "ficomp", "ftst",
    "fucom", "fucomi", "fucomip", "fucomp", "fucompp", "jcxz", "jecxz", "jmpe", "jmpf", "jnbe", "jnle",
    "loadall", "loop", "loopnz", "loopz", "ntaken", "pcmpeqb", "pcmpeqd", "pcmpeqq", "pcmpeqw", "pcmpestri",
    "pcmpestrm", "pcmpgtb", "pcmpgtd", "pcmpgtq", "pcmpgtw", "pcmpistri", "pcmpistrm", "ptest", "retf",
    "retn", "syscall", "sysenter", "sysexit", "sysret", "taken", "test", "ucomisd", "ucomiss", "vpcomb",
    "vpcomd", "vpcomq", "vpcomw", "vpcomub", "vpcomud", "vpcomuq", "vpcomuw", "jknzd", "jkzd", "kortest",
    "vcmppd", "vcmpps", "vpcmpd", "vpcmpeqd", "vpcmpgtd", "vpcmpltd",
};

const char* const BranchExtra[] = {
    "cmppd", "cmpps", "cmpsd", "cmpss", "comisd", "comiss", "pcmpeqb", "pcmpeqw", "pcmpeqd", "pcmpeqq",
    "pcmpgtb", "pcmpgtw", "pcmpgtd", "pcmpgtq", "vpcmpb", "vpcmpub", "vpcmpd", "vpcmpud", "vpcmpq", "vpcmpuq",
    "vpcmpw", "vpcmpuw", "ucomisd", "ucomiss",
};

const char* const FloatBase[] = {
    "addpd", "addps", "addsd", "addss", "addsubpd", "addsubps", "andnpd", "andnps", "andpd", "andps", "divpd",
    "divps", "divsd", "divss", "dppd", "dpps", "f2xm1", "fabs", "fadd", "faddp", "fchs", "fcos", "fdiv",
    "fdivp", "fdivr", "fdivrp", "fiadd", "fidiv", "fidivr", "fimul", "fisub", "fisubr", "fmul", "fmulp",
    "fpatan", "fprem", "fprem1", "fptan", "frndint", "fscale", "fsin", "fsincos", "fsqrt", "fsub", "fsubp",
    "fsubr", "fsubrp", "fxam", "fxtract", "fyl2x", "fyl2xp1", "haddpd", "haddps", "hsubpd", "hsubps", "maxpd",
    "maxps", "maxsd", "maxss", "minpd", "minps", "minsd", "minss", "mulpd", "mulps", "mulsd", "mulss", "orpd",
    "orps", "rcpps", "rcpss", "rsqrtps", "rsqrtss", "sqrtpd", "sqrtps", "sqrtsd", "sqrtss", "subpd", "subps",
    "subsd", "subss", "xorpd", "xorps", "vfmadd132pd", "vfmadd213pd", "vfmadd231pd", "vfmadd132ps",
    "vfmadd213ps", "vfmadd231ps", "vfmadd132sd", "vfmadd213sd", "vfmadd231sd", "vfmadd132ss", "vfmadd213ss",
    "vfmadd231ss", "vfmaddsub132pd", "vfmaddsub213pd", "vfmaddsub231pd", "vfmaddsub132ps", "vfmaddsub213ps",
    "vfmaddsub231ps", "vfmsubadd132pd", "vfmsubadd213pd", "vfmsubadd231pd", "vfmsubadd132ps",
    "vfmsubadd213ps", "vfmsubadd231ps", "vfmsub132pd", "vfmsub213pd", "vfmsub231pd", "vfmsub132ps",
    "vfmsub213ps", "vfmsub231ps", "vfmsub132sd", "vfmsub213sd", "vfmsub231sd", "vfmsub132ss", "vfmsub213ss",
    "vfmsub231ss", "vfnmadd132pd", "vfnmadd213pd", "vfnmadd231pd", "vfnmadd132ps", "vfnmadd213ps",
    "vfnmadd231ps", "vfnmadd132sd", "vfnmadd213sd", "vfnmadd231sd", "vfnmadd132ss", "vfnmadd213ss",
    "vfnmadd231ss", "vfnmsub132pd", "vfnmsub213pd", "vfnmsub231pd", "vfnmsub132ps", "vfnmsub213ps",
    "vfnmsub231ps", "vfnmsub132sd", "vfnmsub213sd", "vfnmsub231sd", "vfnmsub132ss", "vfnmsub213ss",
    "vfnmsub231ss", "vfmaddpd", "vfmaddps", "vfmaddsd", "vfmaddss", "vfmaddsubpd", "vfmaddsubps",
    "vfmsubaddpd", "vfmsubaddps", "vfmsubpd", "vfmsubps", "vfmsubsd", "vfmsubss", "vfnmaddpd", "vfnmaddps",
    "vfnmaddsd", "vfnmaddss", "vfnmsubpd", "vfnmsubps", "vfnmsubsd", "vfnmsubss", "vfrczpd", "vfrczps",
    "vfrczsd", "vfrczss", "vaddnpd", "vaddnps", "vaddpd", "vaddps", "vaddsetsps", "vblendmpd", "vblendmps",
    "vexp223ps", "vfixupnanpd", "vfixupnanps", "vgatherdpd", "vgatherdps", "vgatherpf0dps",
    "vgatherpf0hintdpd", "vgatherpf0hintdps", "vgatherpf1dps", "vgetexppd", "vgetexpps", "vgetmantpd",
    "vgetmantps", "vgmaxabsps", "vgmaxpd", "vgmaxps", "vgminpd", "vgminps", "vlog2ps", "vmulpd", "vmulps",
    "vrcp23ps", "vrndfxpntpd", "vrndfxpntps", "vrsqrt23ps", "vscaleps", "vscatterdpd", "vscatterdps",
    "vscatterpf0dps", "vscatterpf0hintdpd", "vscatterpf0hintdps", "vscatterpf1dps", "vsubpd", "vsubps",
    "vsubrpd", "vsubrps",
};

const char* const IntBase[] = {
    "fxrstor", "fxsave", "idiv", "imul", "mpsadbw", "pabsb", "pabsd", "pabsw", "paddb", "paddd", "paddq",
    "paddsb", "paddsw", "paddusb", "paddusw", "paddw", "palignr", "pand", "pandn", "pavgb", "pavgw", "phaddd",
    "phaddsw", "phaddw", "phminposuw", "phsubd", "phsubsw", "phsubw", "pinsrw", "pmaddubsw", "pmaddwd",
    "pmaxsb", "pmaxsd", "pmaxsw", "pmaxub", "pmaxud", "pmaxuw", "pminsb", "pminsd", "pminsw", "pminub",
    "pminud", "pminuw", "pmovmskb", "pmuldq", "pmulhrsw", "pmulhuw", "pmulhw", "pmulld", "pmullw", "pmuludq",
    "psadbw", "pshufb", "pshufw", "psignb", "psignd", "psignw", "pslld", "pslldq", "psllq", "psllw", "psrad",
    "psraw", "psrld", "psrldq", "psrlq", "psrlw", "psubb", "psubd", "psubq", "psubsb", "psubsw", "psubusb",
    "psubusw", "psubw", "punpckhbw", "punpckhdq", "punpckhwd", "punpcklbw", "punpckldq", "punpcklwd", "pxor",
    "scas", "vphaddbd", "vphaddbq", "vphaddbw", "vphadddq", "vphaddubd", "vphaddubq", "vphaddubw",
    "vphaddudq", "vphadduwd", "vphadduwq", "vphaddwd", "vphaddwq", "vphsubbw", "vphsubdq", "vphsubwd",
    "vpmacsdd", "vpmacsdqh", "vpmacsdql", "vpmacssdd", "vpmacssdqh", "vpmacssdql", "vpmacsswd", "vpmacssww",
    "vpmacswd", "vpmacsww", "vpmadcsswd", "vpmadcswd", "vprotb", "vprotd", "vprotq", "vprotw", "vpshab",
    "vpshad", "vpshaq", "vpshaw", "vpshlb", "vpshld", "vpshlq", "vpshlw", "lzcnt", "popcnt", "tzcnt",
    "tzcnti", "kand", "kandn", "kandnr", "kconcath", "kconcatl", "kextract", "kmerge2l1h", "kmerge2l1l",
    "knot", "kxnor", "kxor", "vpadcd", "vpaddd", "vpaddsetcd", "vpaddsetsd", "vpandd", "vpandnd", "vpandnq",
    "vpandq", "vpblendmd", "vpblendmq", "vpermd", "vpgatherdd", "vpgatherdq", "vpmadd231d", "source",
    "vpmaxsd", "vpminsd", "vpord", "vporq", "vpsbbd", "vpsbbrd", "vpscatterdd", "vpscatterdq", "vpslld",
    "vpsllvd", "vpsrad", "vpsravd", "vpsrld", "vpsrlvd", "vpsubd", "vpsubrd", "vpsubrsetbd", "vpsubsetbd",
    "vptestmd", "vpxord", "vpxorq",
};

const char* const FloatVectorBase[] = {
    "addpd", "addps", "addsubpd", "addsubps", "andnpd", "andnps", "andpd", "andps", "divpd", "divps", "dppd",
    "dpps", "haddpd", "haddps", "hsubpd", "hsubps", "maxpd", "maxps", "minpd", "minps", "mulpd", "mulps",
    "rcpps", "rsqrtps", "sqrtpd", "sqrtps", "subpd", "subps", "vfmadd132pd", "vfmadd213pd", "vfmadd231pd",
    "vfmadd132ps", "vfmadd213ps", "vfmadd231ps", "vfmaddsub132pd", "vfmaddsub213pd", "vfmaddsub231pd",
    "vfmaddsub132ps", "vfmaddsub213ps", "vfmaddsub231ps", "vfmsubadd132pd", "vfmsubadd213pd",
    "vfmsubadd231pd", "vfmsubadd132ps", "vfmsubadd213ps", "vfmsubadd231ps", "vfmsub132pd", "vfmsub213pd",
    "vfmsub231pd", "vfmsub132ps", "vfmsub213ps", "vfmsub231ps", "vfnmadd132pd", "vfnmadd213pd",
    "vfnmadd231pd", "vfnmadd132ps", "vfnmadd213ps", "vfnmadd231ps", "vfnmsub132pd", "vfnmsub213pd",
    "vfnmsub231pd", "vfnmsub132ps", "vfnmsub213ps", "vfnmsub231ps", "vfmaddpd", "vfmaddps", "vfmaddsubpd",
    "vfmaddsubps", "vfmsubaddpd", "vfmsubaddps", "vfmsubpd", "vfmsubps", "vfnmaddpd", "vfnmaddps",
    "vfnmsubpd", "vfnmsubps", "vfrczpd", "vfrczps", "vaddnpd", "vaddnps", "vaddpd", "vaddps", "vaddsetsps",
    "vblendmpd", "vblendmps", "vexp223ps", "vfixupnanpd", "vfixupnanps", "vgatherdpd", "vgatherdps",
    "vgatherpf0dps", "vgatherpf0hintdpd", "vgatherpf0hintdps", "vgatherpf1dps", "vgetexppd", "vgetexpps",
    "vgetmantpd", "vgetmantps", "vgmaxabsps", "vgmaxpd", "vgmaxps", "vgminpd", "vgminps", "vlog2ps", "vmulpd",
    "vmulps", "vrcp23ps", "vrndfxpntpd", "vrndfxpntps", "vrsqrt23ps", "vscaleps", "vscatterdpd",
    "vscatterdps", "vscatterpf0dps", "vscatterpf0hintdpd", "vscatterpf0hintdps", "vscatterpf1dps", "vsubpd",
    "vsubps", "vsubrpd", "vsubrps",
};

const char* const IntVectorBase[] = {
    "mpsadbw", "pabsb", "pabsd", "pabsw", "paddb", "paddd", "paddq", "paddsb", "paddsw", "paddusb", "paddusw",
    "paddw", "palignr", "pavgb", "pavgw", "phaddd", "phaddsw", "phaddw", "phminposuw", "phsubd", "phsubsw",
    "phsubw", "pmaddubsw", "pmaddwd", "pmaxsb", "pmaxsd", "pmaxsw", "pmaxub", "pmaxud", "pmaxuw", "pminsb",
    "pminsd", "pminsw", "pminub", "pminud", "pminuw", "pmuldq", "pmulhrsw", "pmulhuw", "pmulhw", "pmulld",
    "pmullw", "pmuludq", "pshufb", "pshufw", "psignb", "psignd", "psignw", "pslld", "psllq", "psllw", "psrad",
    "psraw", "psrld", "psrlq", "psrlw", "psubb", "psubd", "psubq", "psubsb", "psubsw", "psubusb", "psubusw",
    "psubw", "vphaddbd", "vphaddbq", "vphaddbw", "vphadddq", "vphaddubd", "vphaddubq", "vphaddubw",
    "vphaddudq", "vphadduwd", "vphadduwq", "vphaddwd", "vphaddwq", "vphsubbw", "vphsubdq", "vphsubwd",
    "vpmacsdd", "vpmacsdqh", "vpmacsdql", "vpmacssdd", "vpmacssdqh", "vpmacssdql", "vpmacsswd", "vpmacssww",
    "vpmacswd", "vpmacsww", "vpmadcsswd", "vpmadcswd", "vprotb", "vprotd", "vprotq", "vprotw", "vpshab",
    "vpshad", "vpshaq", "vpshaw", "vpshlb", "vpshld", "vpshlq", "vpshlw", "kand", "kandn", "kandnr",
    "kconcath", "kconcatl", "kextract", "kmerge2l1h", "kmerge2l1l", "knot", "kxnor", "kxor", "vpadcd",
    "vpaddd", "vpaddsetcd", "vpaddsetsd", "vpandd", "vpandnd", "vpandnq", "vpandq", "vpblendmd", "vpblendmq",
    "vpermd", "vpgatherdd", "vpgatherdq", "vpmadd231d", "source", "vpmaxsd", "vpminsd", "vpord", "vporq",
    "vpsbbd", "vpsbbrd", "vpscatterdd", "vpscatterdq", "vpslld", "vpsllvd", "vpsrad", "vpsravd", "vpsrld",
    "vpsrlvd", "vpsubd", "vpsubrd", "vpsubrsetbd", "vpsubsetbd", "vptestmd", "vpxord", "vpxorq",
};

const char* const Avx512VectorFp[] = {
    "addpd", "addps", "andpd", "andps", "andnpd", "andnps", "divpd", "divps", "vfixupimmpd", "vfixupimmps",
    "vfmadd132pd", "vfmadd213pd", "vfmadd231pd", "vfmadd132ps", "vfmadd213ps", "vfmadd231ps",
    "vfmaddsub132pd", "vfmaddsub213pd", "vfmaddsub231pd", "vfmaddsub132ps", "vfmaddsub213ps",
    "vfmaddsub231ps", "vfmsubadd132pd", "vfmsubadd213pd", "vfmsubadd231pd", "vfmsubadd132ps",
    "vfmsubadd213ps", "vfmsubadd231ps", "vfmsub132pd", "vfmsub213pd", "vfmsub231pd", "vfmsub132ps",
    "vfmsub213ps", "vfmsub231ps", "vfnmadd132pd", "vfnmadd213pd", "vfnmadd231pd", "vfnmadd132ps",
    "vfnmadd213ps", "vfnmadd231ps", "vfnmsub132pd", "vfnmsub213pd", "vfnmsub231pd", "vfnmsub132ps",
    "vfnmsub213ps", "vfnmsub231ps", "maxpd", "maxps", "minpd", "minps", "mulpd", "mulps", "orpd", "orps",
    "vrangepd", "vrangeps", "vrcp14pd", "vrcp14ps", "vreducepd", "vreduceps", "vrndscalepd", "vrndscaleps",
    "vrsqrt14pd", "vrsqrt14ps", "vscalefpd", "vscalefps", "vscatterdps", "vscatterdpd", "vscatterqps",
    "vscatterqpd", "subpd", "subps", "xorpd", "xorps",
};

const char* const Avx512Scalar[] = {
    "addsd", "addss", "vfmadd132sd", "vfmadd213sd", "vfmadd231sd", "vfmadd132ss", "vfmadd213ss",
    "vfmadd231ss", "vfmsub132sd", "vfmsub213sd", "vfmsub231sd", "vfmsub132ss", "vfmsub213ss", "vfmsub231ss",
    "vfnmadd132sd", "vfnmadd213sd", "vfnmadd231sd", "vfnmadd132ss", "vfnmadd213ss", "vfnmadd231ss",
    "vfnmsub132sd", "vfnmsub213sd", "vfnmsub231sd", "vfnmsub132ss", "vfnmsub213ss", "vfnmsub231ss", "maxsd",
    "maxss", "minsd", "minss", "mulsd", "mulss", "sqrtsd", "sqrtss", "vrangesd", "vrangess", "vrcp14sd",
    "vrcp14ss", "vreducesd", "vreducess", "vrndscalesd", "vrndscaless", "vrsqrt14sd", "vrsqrt14ss",
    "vscalefsd", "vscalefss", "subsd", "subss",
};

const char* const Avx512VectorInt[] = {
    "vdbpsadbw", "pabsb", "pabsw", "pabsd", "pabsq", "paddb", "paddw", "paddd", "paddq", "paddsb", "paddsw",
    "paddusb", "paddusw", "pavgb", "pavgw", "vpermb", "vpermd", "vpermw", "vpexpandd", "vpexpandq",
    "vplzcntd", "vplzcntdq", "pmaddubsw", "pmaddwd", "vpmadd52luq", "vpmadd52huq", "pmaxsb", "pmaxsw",
    "pmaxsd", "pmaxsq", "pmaxub", "pmaxuw", "pmaxud", "pmaxuq", "pminsb", "pminsw", "pminsd", "pminsq",
    "pminub", "pminuw", "pminud", "pminuq", "pmuldq", "pmulhrsw", "pmulhuw", "pmulhw", "pmulld", "pmullq",
    "pmullw", "pmuludq", "vpscatterdd", "vpscatterdq", "vpscatterqd", "vpscatterqq", "psrlw", "psrld",
    "psrlq", "psubb", "psubw", "psubd", "psubq", "psubsb", "psubsw", "psubusb", "psubusw",
};
template <size_t N>
void insertAll(QSet<QString>* set, const char* const (&names)[N])
{
    for (const char* name : names)
        set->insert(QString::fromLatin1(name));
}

void addAVX512VectorFPInstructions(QSet<QString>* set)
{
    insertAll(set, Avx512VectorFp);
}

void addAVX512ScalarInstructions(QSet<QString>* set)
{
    insertAll(set, Avx512Scalar);
}

void addAVX512VectorIntegerInstructions(QSet<QString>* set)
{
    insertAll(set, Avx512VectorInt);
}

// The operand-size suffixes of the AT&T spelling, and their pairs for
// sign and zero extension. Every name of a category also stands with any
// one of them, and then with or without a "t".
const QStringList& sizeSuffixes()
{
    static const QStringList suffixes = [] {
        QStringList list{ QStringLiteral("s"), QStringLiteral("z") };
        for (const char* pair : { "bl", "bw", "wl", "bq", "wq", "lq" }) {
            list.append(QStringLiteral("s") + QLatin1String(pair));
            list.append(QStringLiteral("z") + QLatin1String(pair));
        }
        list << QStringLiteral("b") << QStringLiteral("w") << QStringLiteral("l") << QStringLiteral("q");
        return list;
    }();
    return suffixes;
}

// Base names and their VEX forms, then the names that have none.
template <size_t N>
QSet<QString> stemsOf(const char* const (&base)[N], const std::function<void(QSet<QString>*)>& extras)
{
    QSet<QString> set;
    insertAll(&set, base);
    const QSet<QString> plain = set;
    for (const QString& name : plain)
        set.insert(QLatin1Char('v') + name);
    extras(&set);
    return set;
}

// The categories of each name before suffixes: a few hundred names, where
// the spelled-out sets would hold a hundred thousand.
const QHash<QString, unsigned int>& stems()
{
    static const QHash<QString, unsigned int> table = [] {
        const struct {
            unsigned int category;
            QSet<QString> names;
        } categories[] = {
            { MemCategory, stemsOf(MemBase, [](QSet<QString>* s) { insertAll(s, MemExtra); }) },
            { BranchCategory, stemsOf(BranchBase, [](QSet<QString>* s) { insertAll(s, BranchExtra); }) },
            { FloatCategory, stemsOf(FloatBase,
                                     [](QSet<QString>* s) {
                                         addAVX512VectorFPInstructions(s);
                                         addAVX512ScalarInstructions(s);
                                     }) },
            { IntCategory, stemsOf(IntBase, &addAVX512VectorIntegerInstructions) },
            { FloatVectorCategory, stemsOf(FloatVectorBase, &addAVX512VectorFPInstructions) },
            { IntVectorCategory, stemsOf(IntVectorBase, &addAVX512VectorIntegerInstructions) },
        };
        QHash<QString, unsigned int> result;
        for (const auto& category : categories) {
            for (const QString& name : category.names)
                result[name] |= category.category;
        }
        return result;
    }();
    return table;
}

// The categories of a name with at most one size suffix.
unsigned int categoriesBeforeT(const QString& mnemonic)
{
    const QHash<QString, unsigned int>& table = stems();
    unsigned int categories = table.value(mnemonic);
    for (const QString& suffix : sizeSuffixes()) {
        if (mnemonic.size() > suffix.size() && mnemonic.endsWith(suffix))
            categories |= table.value(mnemonic.left(mnemonic.size() - suffix.size()));
    }
    return categories;
}

bool hasCategory(unsigned int categories, const InstructionQuery& query, unsigned int category, bool withImplicit)
{
    return (categories & category) || (withImplicit && query.implicitMemory);
}

bool inCategory(const InstructionQuery& query, unsigned int category, bool withImplicit)
{
    return hasCategory(instructionCategories(query.instruction), query, category, withImplicit);
}

quint32 count(unsigned int category, const QList<InstructionQuery>& list, bool withImplicit)
{
    quint32 n = 0;
    for (const InstructionQuery& query : list) {
        if (inCategory(query, category, withImplicit))
            ++n;
    }
    return n;
}

quint32 percentage(unsigned int category, const QList<InstructionQuery>& list, bool withImplicit)
{
    if (list.isEmpty())
        return 0;
    return count(category, list, withImplicit) * 100 / static_cast<quint32>(list.size());
}

} // namespace

unsigned int instructionCategories(const QString& mnemonic)
{
    // A run has a few hundred distinct mnemonics; each is worked out once
    // per thread.
    static thread_local QHash<QString, unsigned int> known;
    const auto found = known.constFind(mnemonic);
    if (found != known.constEnd())
        return *found;
    unsigned int categories = categoriesBeforeT(mnemonic);
    if (mnemonic.endsWith(QLatin1Char('t')))
        categories |= categoriesBeforeT(mnemonic.left(mnemonic.size() - 1));
    known.insert(mnemonic, categories);
    return categories;
}

QSet<QString> instructionsOfCategory(unsigned int category)
{
    QSet<QString> names;
    for (auto stem = stems().constBegin(); stem != stems().constEnd(); ++stem) {
        if (stem.value() & category)
            names.insert(stem.key());
    }
    const QSet<QString> plain = names;
    for (const QString& name : plain) {
        for (const QString& suffix : sizeSuffixes())
            names.insert(name + suffix);
    }
    const QSet<QString> suffixed = names;
    for (const QString& name : suffixed)
        names.insert(name + QLatin1Char('t'));
    return names;
}

quint32 memInstructionCount(const QList<InstructionQuery>& list)
{
    return count(MemCategory, list, true);
}

quint32 branchInstructionCount(const QList<InstructionQuery>& list)
{
    return count(BranchCategory, list, false);
}

quint32 floatInstructionCount(const QList<InstructionQuery>& list)
{
    return count(FloatCategory, list, false);
}

quint32 intInstructionCount(const QList<InstructionQuery>& list)
{
    return count(IntCategory, list, false);
}

quint32 floatVectorInstructionCount(const QList<InstructionQuery>& list)
{
    return count(FloatVectorCategory, list, false);
}

quint32 intVectorInstructionCount(const QList<InstructionQuery>& list)
{
    return count(IntVectorCategory, list, false);
}

quint32 implicitMemInstructionCount(const QList<InstructionQuery>& list)
{
    return count(MemCategory, list, true) - count(MemCategory, list, false);
}

quint32 otherInstructionCount(const QList<InstructionQuery>& list)
{
    quint32 n = 0;
    for (const InstructionQuery& query : list) {
        if (!isCategorisedInstruction(query.instruction))
            ++n;
    }
    return n;
}

quint32 memInstructionPercentage(const QList<InstructionQuery>& list)
{
    return percentage(MemCategory, list, true);
}

quint32 branchInstructionPercentage(const QList<InstructionQuery>& list)
{
    return percentage(BranchCategory, list, false);
}

quint32 floatInstructionPercentage(const QList<InstructionQuery>& list)
{
    return percentage(FloatCategory, list, false);
}

quint32 intInstructionPercentage(const QList<InstructionQuery>& list)
{
    return percentage(IntCategory, list, false);
}

quint32 floatVectorInstructionPercentage(const QList<InstructionQuery>& list)
{
    return percentage(FloatVectorCategory, list, false);
}

quint32 intVectorInstructionPercentage(const QList<InstructionQuery>& list)
{
    return percentage(IntVectorCategory, list, false);
}

InstructionMix instructionMix(const QList<InstructionQuery>& list)
{
    InstructionMix mix;
    if (list.isEmpty())
        return mix;
    // The categories and implicit-memory rule of the percentages above.
    const struct
    {
        unsigned int category;
        bool withImplicit;
        quint32 InstructionMix::*share;
    } shares[] = {
        { MemCategory, true, &InstructionMix::mem },
        { BranchCategory, false, &InstructionMix::branch },
        { FloatCategory, false, &InstructionMix::fp },
        { IntCategory, false, &InstructionMix::integer },
        { FloatVectorCategory, false, &InstructionMix::vectorFp },
        { IntVectorCategory, false, &InstructionMix::vectorInt },
    };
    for (const InstructionQuery& query : list) {
        const unsigned int categories = instructionCategories(query.instruction);
        for (const auto& share : shares) {
            if (hasCategory(categories, query, share.category, share.withImplicit))
                ++(mix.*share.share);
        }
    }
    for (const auto& share : shares)
        mix.*share.share = mix.*share.share * 100 / static_cast<quint32>(list.size());
    return mix;
}

bool isCategorisedInstruction(const QString& mnemonic)
{
    return instructionCategories(mnemonic) != 0;
}
