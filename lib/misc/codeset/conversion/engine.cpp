#include "lib/misc/codeset/conversion/engine.h"

#include "lib/misc/codeset/codeset.h"

#include <atomic>

namespace {

std::atomic<const CodeSetEngine *> sEngine{nullptr};

} // namespace

const CodeSetEngine *CodeSetEngine_Get()
{
   return sEngine.load(std::memory_order_acquire);
}

void CodeSetEngine_Set(const CodeSetEngine *engine)
{
   sEngine.store(engine, std::memory_order_release);
}

void CodeSet_DontUseIcu()
{
   CodeSetEngine_Set(nullptr);
}
