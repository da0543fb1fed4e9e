#include "velmmonitord/Agent.h"

int main() {
    // Without any handler the language leaves it open whether an exception takes down the stack before it
    // ends the process. It is to: a failed launch still destroys the launcher.
    try {
        return runAgent();
    } catch (...) {
        throw;
    }
}
