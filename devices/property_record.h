#pragma once

#include <vesk/capture_records.h>
#include <vesk/export.h>
#include <vesk/property_sets.h>

namespace vesk {

/// A property set as the capture library takes it.
VESK_LOCAL VCIPropertySet propertySetRecord(const capture::PropertySetIdentifier& set);

}  // namespace vesk
