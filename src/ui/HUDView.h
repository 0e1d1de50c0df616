#pragma once

#include <QPixmap>
#include <QPoint>
#include <QWidget>

namespace tavrel {

/// Content of the recording panel: a rounded, nearly opaque light card (radius 20) that moves its window
/// when dragged by the background.
class HUDView : public QWidget {
    Q_OBJECT
public:
    static constexpr int kWidthPx = 60;
    static constexpr int kHeightPx = 262;

    explicit HUDView(QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QPixmap m_card;
    bool m_dragging = false;
    QPoint m_grabOffset; ///< cursor position relative to the window's top-left corner at the press
};

} // namespace tavrel
