// A host that does what a run of bytes tells it: whole packages and broken ones, good beginnings
// and bad ends.
#pragma once

#include <cstdint>
#include <span>

#include "agent/agent_core.h"

void RunSessionScript(agent::CAgentCore& core, std::span<const std::uint8_t> script);
