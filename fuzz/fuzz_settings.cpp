// Fuzz target: a GUI settings file (JSON layout) through the settings model.
#include <cstddef>
#include <cstdint>

#include <QString>

#include "fuzz/fuzzcheck.h"
#include "gui/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using fuzz::require;
    const QString json = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    const Settings::GUI gui(json);

    require(gui.valid, "the parsing constructor always ends valid");
    require(QString(gui).startsWith(QStringLiteral("GUI settings:\n")),
            "the print-out keeps its heading");
    // The ids the program asks for, and the first label's own id.
    for (const char* id : {"status_noDev", "status_devConn", "8b2", "2"}) {
        const QString wanted = QString::fromLatin1(id);
        const Settings::LabelData* label = gui.label(wanted);
        require(!label || label->id == wanted, "a look-up finds the id asked for");
        require(gui.text(wanted) == (label ? label->text : QString()), "text follows label");
    }
    if (!gui.labels.empty())
        require(gui.label(gui.labels.front().id) == &gui.labels.front(),
                "a look-up returns the first label with that id");
    return 0;
}
