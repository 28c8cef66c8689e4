#ifndef MEROVANE_TESTS_SERIAL_PTYPAIR_H
#define MEROVANE_TESTS_SERIAL_PTYPAIR_H

#include <termios.h>

#include <cstddef>
#include <string>

// A pseudo-terminal pair standing in for a serial line: a SerialPort opens the
// slave by its path, the master plays the far end. The pair keeps a descriptor
// of its own on the slave, so that the slave's attributes can be read while
// the port is closed and the line stays up when the port lets go of it.
class PtyPair {
  public:
    PtyPair();
    ~PtyPair();
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;
    PtyPair(PtyPair&&) = delete;
    PtyPair& operator=(PtyPair&&) = delete;

    [[nodiscard]] const std::string& SlavePath() const { return slavePath; }
    [[nodiscard]] termios SlaveAttributes() const;
    void SetSlaveAttributes(const termios& attributes) const;

    // Sends from the far end.
    void Send(const std::string& bytes) const;
    // What comes out at the far end, until count bytes have come or none has
    // come for timeoutMs.
    [[nodiscard]] std::string Receive(std::size_t count, int timeoutMs = 10000) const;
    [[nodiscard]] bool MasterHasData(int timeoutMs) const;
    [[nodiscard]] int Master() const { return master; }
    // Hangs the line up: the slave side sees the far end gone.
    void CloseMaster();

  private:
    int master = -1;
    int slave = -1;
    std::string slavePath;
};

// Entries in /proc/self/fd, the directory stream's own descriptor included.
int CountOpenDescriptors();

// Compares the parts of two records that a device keeps.
bool SameAttributes(const termios& lhs, const termios& rhs);

#endif
