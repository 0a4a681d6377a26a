// Entries of rings by their time stamps.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "Kbase/Pipeline/IPipelineElement.h"

namespace Tavi::PipelineCollect {

/// Presentation time stamp in nanoseconds. Empty when there is no entry, no buffer, or no time stamp on it.
std::optional<std::uint64_t> GetTimestamp(const Kbase::Pipeline::IPipelineCbElement* entry);

/// When the entry was made, to some 4 ms; one that does not tell was made now.
std::chrono::steady_clock::time_point GetMadeAt(const Kbase::Pipeline::IPipelineCbElement* entry);
/// How long ago that was.
std::chrono::milliseconds GetAge(const Kbase::Pipeline::IPipelineCbElement* entry);
/// The same of the ring's newest entry.
std::chrono::milliseconds GetAge(const Kbase::Pipeline::IPipelineElement& ring);

/// Finds the entry of `ring` that lies in time between the entries `refPos - 1` and `refPos` of `reference`, searching
/// from `frames` entries back. Ends within ring-size steps: where no entry lies between the two `pos` is the nearest
/// one, and where they lie before all that the ring holds, its oldest. False without time stamps to compare, and where
/// they lie behind all of it: the ring's source stands still, and has nothing of that moment.
bool FindSameTime(const Kbase::Pipeline::IPipelineElement& ring, const Kbase::Pipeline::IPipelineElement& reference,
                  int refPos, int frames, unsigned int& pos);

}  // namespace Tavi::PipelineCollect
