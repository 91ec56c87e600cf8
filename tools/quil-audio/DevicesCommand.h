#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace quilaudio {

/// `quil-audio devices`: what a board offers, as ALSA names it. The PCMs come
/// from ALSA's device name hints, the cards from its card list, each with the
/// number of simple-mixer elements the library finds on it.
class DevicesCommand
{
public:
    /// `arguments` starts with "quil-audio devices"; returns the exit status.
    int run(const QStringList& arguments);

private:
    struct Pcm
    {
        QString name;
        /// As the hint gives it; hardware hints hold several lines.
        QString description;
        bool playback = true;
        bool capture = true;
    };

    /// A card's mixer ("hw:N") or one named on the command line.
    struct Mixer
    {
        QString device;
        int card = -1;          ///< -1: not a card of the card list
        QString cardName;
        QString cardLongName;
        int elementCount = -1;  ///< -1: the mixer cannot be opened
    };

    bool readPcms(QString* error);
    void readCards();
    bool readNamedMixers(const QStringList& devices, QString* error);
    void printText() const;
    void printJson() const;

    QList<Pcm> m_pcms;
    QList<Mixer> m_cards;
    QList<Mixer> m_mixers;
};

} // namespace quilaudio
