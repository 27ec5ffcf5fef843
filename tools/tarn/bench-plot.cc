#include "bench-plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace tarn::tool::bench {

namespace {

// Of the image, and of the frame inside it.
constexpr double kWidth = 640;
constexpr double kHeight = 340;
constexpr double kLeft = 64;
constexpr double kRight = 620;
constexpr double kTop = 56;
constexpr double kBottom = 284;
constexpr double kHeadroom = 1.05;  // Above the largest value.
constexpr double kLegendStep = 128;

std::string Number(double value) {
  std::array<char, 32> text = {};
  std::snprintf(text.data(), text.size(), "%.6g", value);
  return text.data();
}

// 1, 2 or 5 times a power of ten, so that about five of them reach `max`.
double TickStep(double max) {
  const double rough = max / 5;
  const double power = std::pow(10, std::floor(std::log10(rough)));
  for (const double factor : {1, 2, 5}) {
    if (factor * power >= rough) return factor * power;
  }
  return 10 * power;
}

std::vector<double> LinearTicks(double max) {
  std::vector<double> ticks;
  const double step = TickStep(max);
  for (int i = 0; i * step <= max * 1.001; ++i) ticks.push_back(i * step);
  return ticks;
}

std::vector<double> PowersOfTwo(double max) {
  std::vector<double> ticks;
  for (int i = 0; std::ldexp(1, i) <= max; ++i) {
    ticks.push_back(std::ldexp(1, i));
  }
  return ticks;
}

std::string Text(double x, double y, const std::string& attributes,
                 const std::string& text) {
  return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" " + attributes +
         ">" + Escape(text) + "</text>\n";
}

std::string Line(double x1, double y1, double x2, double y2,
                 const std::string& style) {
  return "<line x1=\"" + Number(x1) + "\" y1=\"" + Number(y1) + "\" x2=\"" +
         Number(x2) + "\" y2=\"" + Number(y2) + "\" class=\"" + style +
         "\"/>\n";
}

}  // namespace

std::string Escape(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

Plot::Plot(std::string title, std::string x_title, std::string y_title,
           bool log_x)
    : title_(std::move(title)),
      x_title_(std::move(x_title)),
      y_title_(std::move(y_title)),
      log_x_(log_x) {}

void Plot::AddLine(const std::string& name, const Points& points) {
  Add(LINE, name, points);
}

void Plot::AddBars(const std::string& name, const Points& points) {
  Add(BARS, name, points);
  for (const auto& point : points) x_max_ = std::max(x_max_, point.first + 1);
}

void Plot::AddHorizontal(const std::string& name, double y) {
  Add(HORIZONTAL, name, {{0, y}});
}

void Plot::AddVertical(const std::string& name, double x) {
  Add(VERTICAL, name, {{x, 0}});
}

void Plot::Add(Shape shape, const std::string& name, const Points& points) {
  series_.push_back({shape, name, {}});
  for (const auto& [x, y] : points) {
    if (!std::isfinite(x) || !std::isfinite(y)) continue;
    series_.back().points.emplace_back(x, y);
    x_max_ = std::max(x_max_, x);
    y_max_ = std::max(y_max_, kHeadroom * y);
  }
}

double Plot::X(double x) const {
  const double share =
      log_x_ ? std::log2(x) / std::log2(std::max(x_max_, 2.0)) : x / x_max_;
  return kLeft + share * (kRight - kLeft);
}

double Plot::Y(double y) const {
  return kBottom - y / y_max_ * (kBottom - kTop);
}

std::string Plot::Grid() const {
  std::string svg;
  for (const double tick : LinearTicks(y_max_)) {
    svg += Line(kLeft, Y(tick), kRight, Y(tick), "grid");
    svg += Text(kLeft - 8, Y(tick) + 4, "text-anchor=\"end\"", Number(tick));
  }
  for (const double tick : log_x_ ? PowersOfTwo(x_max_) : LinearTicks(x_max_)) {
    svg += Line(X(tick), kBottom, X(tick), kBottom + 5, "axis");
    svg += Text(X(tick), kBottom + 20, "text-anchor=\"middle\"", Number(tick));
  }
  return svg + Line(kLeft, kBottom, kRight, kBottom, "axis") +
         Line(kLeft, kTop, kLeft, kBottom, "axis");
}

std::string Plot::Titles() const {
  const double middle = (kTop + kBottom) / 2;
  return Text(kLeft, 20, "class=\"title\"", title_) +
         Text((kLeft + kRight) / 2, kHeight - 14, "text-anchor=\"middle\"",
              x_title_) +
         Text(16, middle,
              "text-anchor=\"middle\" transform=\"rotate(-90 16 " +
                  Number(middle) + ")\"",
              y_title_);
}

std::string Plot::Legend() const {
  std::string svg;
  double x = kLeft;
  for (size_t i = 0; i < series_.size(); ++i, x += kLegendStep) {
    svg += Line(x, 38, x + 18, 38, StyleOf(i));
    svg += Text(x + 24, 42, "", series_[i].name);
  }
  return svg;
}

std::string Plot::StyleOf(size_t index) const {
  const Shape shape = series_[index].shape;
  const bool reference = shape == HORIZONTAL || shape == VERTICAL;
  return (reference ? "reference c" : "c") + std::to_string(index);
}

std::string Plot::DrawLine(const Points& points,
                           const std::string& style) const {
  std::ostringstream path;
  std::string marks;
  for (const auto& [x, y] : points) {
    path << X(x) << ',' << Y(y) << ' ';
    if (points.size() > 20) continue;
    marks += "<circle cx=\"" + Number(X(x)) + "\" cy=\"" + Number(Y(y)) +
             "\" r=\"3\" class=\"" + style + "\"/>\n";
  }
  return "<polyline points=\"" + path.str() + "\" class=\"line " + style +
         "\"/>\n" + marks;
}

std::string Plot::DrawBars(const Points& points,
                           const std::string& style) const {
  std::string svg;
  const double width = (kRight - kLeft) / x_max_ * 0.8;
  for (const auto& [x, y] : points) {
    svg += "<rect x=\"" + Number(X(x) - width / 2) + "\" y=\"" + Number(Y(y)) +
           "\" width=\"" + Number(width) + "\" height=\"" +
           Number(kBottom - Y(y)) + "\" class=\"" + style + "\"/>\n";
  }
  return svg;
}

std::string Plot::Draw(const Series& series, const std::string& style) const {
  if (series.points.empty()) return "";
  const auto [x, y] = series.points.front();
  switch (series.shape) {
    case LINE:
      return DrawLine(series.points, style);
    case BARS:
      return DrawBars(series.points, style);
    case HORIZONTAL:
      return Line(kLeft, Y(y), kRight, Y(y), style);
    case VERTICAL:
      return Line(X(x), kTop, X(x), kBottom, style);
  }
  return "";
}

std::string Plot::Svg() const {
  std::string svg =
      "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" viewBox=\"0 0 " +
      Number(kWidth) + " " + Number(kHeight) + "\">\n<title>" + Escape(title_) +
      "</title>\n" + Titles();
  if (x_max_ > 0 && y_max_ > 0) {
    svg += Grid() + Legend();
    for (size_t i = 0; i < series_.size(); ++i) {
      svg += Draw(series_[i], StyleOf(i));
    }
  } else {
    svg += Text(kLeft, 60, "", "nothing was measured");
  }
  return svg + "</svg>\n";
}

}  // namespace tarn::tool::bench
