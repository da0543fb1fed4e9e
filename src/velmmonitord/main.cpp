#include "velmmonitord/Agent.h"

int main() {
    return runAgent();
}
