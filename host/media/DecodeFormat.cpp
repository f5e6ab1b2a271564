#include "host/media/DecodeFormat.h"

const DecodeFormat& DecodeFormat::getDefault() noexcept {
    static const DecodeFormat format(kModeHighResolution);
    return format;
}
