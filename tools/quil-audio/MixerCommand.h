#pragma once

#include "AlsaMixerElement.h"

#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

class AlsaCard;

namespace quilaudio {

/// `quil-audio mixer`: lists, reads, changes and watches simple-mixer
/// elements through AlsaCard, on the calling thread, whose event loop
/// delivers the elements' changed() signals while watching.
class MixerCommand
{
public:
    MixerCommand();
    ~MixerCommand();

    /// `arguments` starts with "quil-audio mixer"; returns the exit status.
    int run(const QStringList& arguments);

private:
    int list();
    int get(const QString& name);
    int set(const QCommandLineParser& parser, const QString& name);
    int watch(const QStringList& names, int count);

    int openCard();
    AlsaMixerElementPtr load(const QString& name, int* status);
    QList<AlsaMixerElementPtr> loadAll(int* status);
    /// The side to change: the one asked for, else playback when the element
    /// has the control there, else capture; false when it has none.
    bool chooseSide(const QString& control, AlsaMixerElement& element, AlsaElementMode* mode, QString* error);
    int setVolume(AlsaMixerElement& element, const QString& value);
    int setDb(AlsaMixerElement& element, const QString& value);
    int setSwitch(AlsaMixerElement& element, const QString& value);
    int setEnum(AlsaMixerElement& element, const QString& item);

    QString m_device;
    bool m_playbackAsked = false;
    bool m_captureAsked = false;
    std::unique_ptr<AlsaCard> m_card;
};

} // namespace quilaudio
