#pragma once

// What FakePlatform's resetPlatform is made of; each forgets the state of one file.
namespace fake {

void resetOperations();
void resetConnections();
void resetNotificationCenter();
void resetProcess();

}  // namespace fake
