#include "data/AbstractJSONBackedData.h"

namespace valtor {

AbstractJSONBackedData::~AbstractJSONBackedData() = default;

void AbstractJSONBackedData::reset() {}

std::string AbstractJSONBackedData::toString() const { return {}; }

}  // namespace valtor
