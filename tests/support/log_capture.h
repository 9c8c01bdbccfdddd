// Takes the place of syslog in a test program that links the library's objects, and keeps its lines. Any thread.
#ifndef OBREG_TESTS_LOG_CAPTURE_H
#define OBREG_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace logcapture {

/// The lines since the last call, each as "priority text", for instance "14 ReqMessage::...\n".
std::vector<std::string> take();

/// True when one of the lines since the last take() contains `text`; takes nothing.
bool contains(const std::string& text);

/// Sets CDebugLevel, which threads of the library may be reading.
void setDebugLevel(int level);

} // namespace logcapture

#endif
