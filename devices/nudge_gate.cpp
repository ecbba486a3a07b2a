#include "devices/nudge_gate.h"

namespace vesk {

NudgeGate& NudgeGate::ofAllCameras() {
  static auto& gate = *new NudgeGate;  // outlives every queue that nudges
  return gate;
}

void NudgeGate::add() {
  const MutexLock lock(mMutex);
  ++mNudges;
}

void NudgeGate::remove() {
  const MutexLock lock(mMutex);
  --mNudges;
  mChanged.notify_all();
}

void NudgeGate::waitUntilNone() {
  const MutexLock lock(mMutex);
  while (mNudges > 0) mChanged.wait(mMutex);
}

bool NudgeGate::beginTurn() {
  const MutexLock lock(mMutex);
  if (mClosings > 0) return false;
  ++mTurns;
  return true;
}

NudgeGate::Turn::Turn(NudgeGate& gate) : mGate(gate), mIsAllowed(gate.beginTurn()) {}

NudgeGate::Turn::~Turn() {
  if (!mIsAllowed) return;
  const MutexLock lock(mGate.mMutex);
  --mGate.mTurns;
  mGate.mChanged.notify_all();
}

NudgeGate::Closing::Closing(NudgeGate& gate) : mGate(gate) {
  const MutexLock lock(mGate.mMutex);
  ++mGate.mClosings;
  while (mGate.mTurns > 0) mGate.mChanged.wait(mGate.mMutex);
}

NudgeGate::Closing::~Closing() {
  const MutexLock lock(mGate.mMutex);
  --mGate.mClosings;
}

}  // namespace vesk
