// The test entry: acquisition with a fixed configuration, without the unit's main process around it.
#pragma once

#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::Testing {

/// The configuration that TestGstApi runs with. The slower camera gets the larger bit budget on purpose.
Pipeline::PipelineConfig BuildTestConfig();

/// Starts acquisition with the test configuration, writes "PLAYING" to standard output and sleeps for ever. Only a
/// restart of the unit or a signal ends it.
void TestGstApi();

}  // namespace Tavi::Testing
