// What assistive technology is told: a shown text as one sentence, and a change once it settled.
#pragma once

#include <functional>

#include <QString>

class QObject;

// The words of a label's plain or rich text, markup and line breaks gone: the layout breaks lines
// for the picture, a screen reader reads sentences.
QString spoken_text(const QString& shown);

// Runs `announce` once control is back in the event loop, however often it was asked for before.
// A reader learns of a change from an event that carries no text (Qt's AT-SPI bridge sends the
// object's path, qtbase's atspiadaptor.cpp), then asks for the text; the program answers after all
// that its loop already holds, so a text replaced before then is never heard, and announcing it
// would only make the reader say its successor twice.
class SettledAnnouncement final
{
public:
    SettledAnnouncement(QObject* owner, std::function<void()> announce);
    SettledAnnouncement(const SettledAnnouncement&) = delete;
    SettledAnnouncement& operator=(const SettledAnnouncement&) = delete;

    void request();

private:
    QObject* owner;
    std::function<void()> announce;
    bool pending = false;
};
