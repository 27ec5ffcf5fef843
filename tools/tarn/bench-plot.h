#ifndef TOOLS_TARN_BENCH_PLOT_H_
#define TOOLS_TARN_BENCH_PLOT_H_

#include <string>
#include <utility>
#include <vector>

namespace tarn::tool::bench {

// `text` as it stands in HTML and SVG.
std::string Escape(const std::string& text);

// One plot as an SVG image, whose colours are left to the style sheet of the
// page: classes axis, grid, reference, and c0, c1, ... for what is plotted.
class Plot {
 public:
  using Points = std::vector<std::pair<double, double>>;

  // What the axes show, with units. Both begin at 0; a logarithmic x axis, to
  // the base 2, at 1.
  Plot(std::string title, std::string x_title, std::string y_title,
       bool log_x = false);

  void AddLine(const std::string& name, const Points& points);
  void AddBars(const std::string& name, const Points& points);
  void AddHorizontal(const std::string& name, double y);
  void AddVertical(const std::string& name, double x);

  std::string Svg() const;

 private:
  enum Shape { LINE, BARS, HORIZONTAL, VERTICAL };

  struct Series {
    Shape shape;
    std::string name;
    Points points;
  };

  void Add(Shape shape, const std::string& name, const Points& points);
  double X(double x) const;  // In the image.
  double Y(double y) const;
  std::string Grid() const;
  std::string Titles() const;
  std::string Legend() const;
  std::string Draw(const Series& series, const std::string& style) const;
  std::string DrawLine(const Points& points, const std::string& style) const;
  std::string DrawBars(const Points& points, const std::string& style) const;
  std::string StyleOf(size_t index) const;

  std::string title_;
  std::string x_title_;
  std::string y_title_;
  bool log_x_;
  std::vector<Series> series_;
  double x_max_ = 0;  // The largest values to be shown.
  double y_max_ = 0;
};

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_PLOT_H_
