#ifndef LUMORA_TRANSPORT_MIDISTATUS_H
#define LUMORA_TRANSPORT_MIDISTATUS_H

// Status bytes of the MIDI protocol.

static const unsigned char kSysExStart = 0xF0;
static const unsigned char kSysExEnd = 0xF7;

/// Whether `status` begins a channel message, voice or mode.
inline bool isChannelStatus(unsigned int status)
{
    return status >= 0x80 && status <= 0xEF;
}

#endif
