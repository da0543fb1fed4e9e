#include "platform/RunLoop.h"

#import <Foundation/Foundation.h>

namespace platform {
namespace {

class MainRunLoop : public IRunLoop {
public:
    void run() override { [[NSRunLoop mainRunLoop] run]; }
};

}  // namespace

IRunLoop& mainRunLoop() {
    static MainRunLoop loop;
    return loop;
}

}  // namespace platform
