#include "sync/ProcessWindowController.h"

ProcessWindowController::ProcessWindowController(AppServices *appDelegate, QObject *parent)
    : QObject(parent), m_appDelegate(appDelegate)
{
}

ProcessWindowController::~ProcessWindowController() = default;

void ProcessWindowController::disconnect()
{
    m_state = State::Stopped;
    emit stateChanged(m_state);
}

ProcessWindowController::State ProcessWindowController::state() const
{
    return m_state;
}

bool ProcessWindowController::isQuiet() const
{
    return true;
}
