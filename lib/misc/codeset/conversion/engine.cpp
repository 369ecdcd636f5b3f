#include "lib/misc/codeset/conversion/engine.h"

#include "lib/misc/codeset/codeset.h"

#include <atomic>

namespace {

std::atomic<const CodeSetEngine *> engineInUse{nullptr};

} // namespace

const CodeSetEngine *CodeSetEngine_Get()
{
   return engineInUse.load(std::memory_order_acquire);
}

void CodeSetEngine_Set(const CodeSetEngine *engine)
{
   engineInUse.store(engine, std::memory_order_release);
}

void CodeSet_DontUseIcu()
{
   CodeSetEngine_Set(nullptr);
}
