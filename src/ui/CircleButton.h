#pragma once

#include <QColor>
#include <QPixmap>
#include <QWidget>
#include <functional>

namespace tavrel {

/// A round button: a disc of `color` with a white symbol in its middle. A click counts when the press
/// and the release both fall inside the button's square; a release outside cancels it.
class CircleButton : public QWidget {
    Q_OBJECT
public:
    static constexpr int kIconEdgePx = 16;
    static constexpr qreal kIconPointSize = 13;
    static constexpr qreal kPressedOpacity = 0.7;

    explicit CircleButton(QWidget* parent = nullptr);

    std::function<void()> onTap;

    QColor color() const { return m_color; }
    void setColor(const QColor& color);
    /// Shows the named symbol in white; an unknown name leaves the disc without a symbol.
    void setIcon(const QString& symbol);
    QString symbol() const { return m_symbol; }
    QPixmap iconPixmap() const { return m_icon; }
    qreal opacity() const { return m_opacity; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QColor m_color;
    QString m_symbol;
    QPixmap m_icon;
    qreal m_opacity = 1.0;
};

} // namespace tavrel
