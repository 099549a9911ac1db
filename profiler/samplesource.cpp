#include "samplesource.h"

bool FakeSampleSource::readSamples(SampleList&)
{
    return false;
}
