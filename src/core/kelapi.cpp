// The flat kel_* entry points: thin shims over the clip classes.
#include "kel.h"

namespace {

// Frames per PCM packet for the loaders; 0 means 1024.
int raw_packet_size = 0;

} // namespace

extern "C" {

void kel_set_raw_packet_size(int size)
{
    raw_packet_size = size;
}

int kel_get_raw_packet_size(void)
{
    return raw_packet_size;
}

} // extern "C"
