#pragma once

#include "capture/property_sets.h"
#include "capture/records.h"
#include "platform/foundation/export.h"

namespace vesk {

/// A property set as the capture library is told of it.
VESK_LOCAL VCIPropertySet propertySetRecord(const capture::PropertySetIdentifier& set);

}  // namespace vesk
