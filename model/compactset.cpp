#include "compactset.h"

template class CompactSet<int>;
template class CompactSet<unsigned long long>;
