// The demo producer's side of each pool kind: its putter behind one call per
// element, so that the producer loop treats every pool alike.
#pragma once

#include "demo/demo.h"

#include <memory>
#include <sys/time.h>

namespace avpool::demo {

class PoolWriter {
public:
    virtual ~PoolWriter() = default;
    // Puts element `number` of plan.parts arrays of length bytes each, one after
    // the other in data. False when the pool refused it. key: the frame opens a GOP.
    virtual bool put(unsigned char* data, int length, unsigned long long number, bool key,
                     const timeval& captured) = 0;
    virtual void release() = 0;
};

// Each creates the pool of the plan and sets its working parameters; the
// kinds table names the one of each kind (PoolKind::writer).
std::unique_ptr<PoolWriter> writeJpg(const PoolPlan& plan);
std::unique_ptr<PoolWriter> writeMp4(const PoolPlan& plan);
std::unique_ptr<PoolWriter> writePcm(const PoolPlan& plan);
std::unique_ptr<PoolWriter> writeAac(const PoolPlan& plan);
std::unique_ptr<PoolWriter> writeAmr(const PoolPlan& plan);
std::unique_ptr<PoolWriter> writeOpus(const PoolPlan& plan);
std::unique_ptr<PoolWriter> writeLum(const PoolPlan& plan);
std::unique_ptr<PoolWriter> writeMd(const PoolPlan& plan);

}  // namespace avpool::demo
