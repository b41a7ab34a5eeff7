// Drives modal forms from inside their own event loop, as a user's clicks would arrive:
// used by the Qt tests and by the program that renders the forms' pictures.
#pragma once

#include <QApplication>
#include <QTimer>
#include <QWidget>
#include <functional>

namespace tessarel::qt {

// Calls action with the modal widget of type T as soon as one is shown (polling the modal
// stack from the event loop). Schedule it before the call that opens the form. The timer
// returned may be deleted to give up waiting.
template <typename T = QWidget>
QTimer* when_shown(std::function<void(T*)> action) {
  auto* timer = new QTimer;
  timer->setInterval(10);
  QObject::connect(timer, &QTimer::timeout, [timer, action = std::move(action)] {
    auto* w = qobject_cast<T*>(QApplication::activeModalWidget());
    if (!w || !w->isVisible()) return;
    timer->stop();
    timer->deleteLater();
    w->activateWindow();
    QApplication::processEvents();
    action(w);
  });
  timer->start();
  return timer;
}

// A child widget by its object name (the model's control name).
template <typename T>
T* control(QWidget* form, const char* name) {
  return form->findChild<T*>(QString::fromLatin1(name));
}

}  // namespace tessarel::qt
