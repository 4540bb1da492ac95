// Where every dfu-util run goes, set up once at start-up by the window and the companion alike: the
// tool bundle copied out of the program into a folder that lets it run, or the simulator's script.
#pragma once

#include <vector>

#include <QString>

#include "support/files.h"

namespace Tool {

// What start-up could not do; kind None when nothing.
struct StartProblem
{
    enum Kind { None, FilesNotPrepared, ToolBlocked };
    Kind kind = None;
    QString folder;
    QString reason;

    // The window's layout id for it, whose English text is message()'s.
    QString layout_id() const;
    // In English, as the companion prints it and the window's log keeps it.
    QString message() const;
};

// Copies `files` out (Files::extract_resources), marks the tool executable and runs its self-test.
// In real-device mode the command table then looks for the tool there; when that folder does not
// let it start (mounted noexec, say), the files go once more to a fresh folder under
// Files::private_base(), and a problem is only reported when that fails too. With simulator::use
// the table goes to the simulator instead.
StartProblem set_up(const std::vector<Files::ID>& files);

// Whether the working folder lacks room for the largest file the tool writes there, the read-back
// of the carried image, counting the space the earlier read-outs take (each read removes its file
// first): a read that failed then failed for that, not for the unit.
bool lacks_room();

} // namespace Tool
