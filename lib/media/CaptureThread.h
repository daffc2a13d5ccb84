// The thread of a capture: calls one step after another until it is told to end, and releases the
// capture if the capture's own callback has asked for that. Knows no device.
//
// The context holds the state: `thread`, `running`, `hasThread` and `releasedInside`. Only one
// thread at a time, or the capture's own callback, uses these functions on a context.
#pragma once

#include <pthread.h>
#include <sys/prctl.h>

#include <atomic>

#include "base/QuietThread.h"

namespace qv {

template <class Context>
struct CaptureWays {
    const char* name;           // of the thread, at most 15 characters
    void (*step)(Context*);     // must end within a short time
    void (*release)(Context*);  // closes everything of the capture, and frees it
};

template <class Context, const CaptureWays<Context>& kWays>
class CaptureThread {
  public:
    // 0, or the error when no thread could be made.
    static int Start(Context* ctx) {
        ctx->running = 1;
        ctx->hasThread = true;
        // From here on the thread owns the context, too: its callback may release it at once.
        const int error = CreateQuietThread(&ctx->thread, Run, ctx);
        if (error == 0) return 0;
        ctx->running = 0;
        ctx->hasThread = false;
        return error;
    }

    // Whether the caller is the capture's own callback: no thread joins itself.
    static bool IsInside(const Context* ctx) { return ctx == t_current; }

    static void AskToEnd(Context* ctx) { ctx->running.store(0, std::memory_order_relaxed); }

    // Ends the thread, if there is one, and waits for it. Not from its own callback.
    static void End(Context* ctx) {
        AskToEnd(ctx);
        if (!ctx->hasThread) return;
        pthread_join(ctx->thread, nullptr);
        ctx->hasThread = false;
        ctx->thread = {};
    }

    // From its own callback: the thread releases the context when the callback has returned.
    static void ReleaseAfterCallback(Context* ctx) {
        AskToEnd(ctx);
        ctx->releasedInside = true;
    }

  private:
    static void* Run(void* param) {
        auto* ctx = static_cast<Context*>(param);
        prctl(PR_SET_NAME, kWays.name, 0, 0, 0);
        t_current = ctx;
        while (ctx->running.load(std::memory_order_relaxed) != 0) kWays.step(ctx);
        t_current = nullptr;
        if (ctx->releasedInside) {
            pthread_detach(pthread_self());
            kWays.release(ctx);
        }
        return nullptr;
    }

    // The capture whose thread this is; null on every other thread.
    static thread_local Context* t_current;
};

template <class Context, const CaptureWays<Context>& kWays>
thread_local Context* CaptureThread<Context, kWays>::t_current = nullptr;

}  // namespace qv
