#include "emulator/drive/demo_drive.h"

#include <array>
#include <string>

namespace emulator {
namespace {

/// A picture of one plain colour with its number.
std::string Picture(int number) {
  const std::string hue = std::to_string(number * 47 % 360);
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 160 120\">"
         "<rect width=\"160\" height=\"120\" fill=\"hsl(" +
         hue + ",60%,60%)\"/><text x=\"80\" y=\"70\" text-anchor=\"middle\" font-size=\"32\">" +
         std::to_string(number) + "</text></svg>\n";
}

std::string PictureName(int number) {
  std::string digits = std::to_string(number);
  digits.insert(0, 4 - digits.size(), '0');
  return "IMG_" + digits + ".svg";
}

void SeedReports(Drive& drive) {
  constexpr std::array<const char*, 6> kMonths = {"January", "February", "March",
                                                  "April",   "May",      "June"};
  for (std::size_t i = 0; i < kMonths.size(); ++i) {
    const std::string month = kMonths[i];
    drive.WriteFile("/Documents/Reports/2026/" + month + ".md",
                    "# " + month + " 2026\n\n- Orders: " + std::to_string(120 + 17 * i) +
                        "\n- Returns: " + std::to_string(3 + i % 4) +
                        "\n\nDelivery times were as planned.\n");
  }
  drive.WriteFile("/Documents/Reports/Summary.csv",
                  "month,orders,returns\nJanuary,120,3\nFebruary,137,4\nMarch,154,5\n");
}

void SeedNames(Drive& drive) {
  drive.WriteFile("/Documents/100% sure #1.txt",
                  "A name with a percent sign, a hash and spaces.\n");
  drive.WriteFile("/Documents/Überblick für März.txt", "Ein Name mit Umlauten.\n");
  drive.WriteFile("/Documents/日本語のメモ.txt", "日本語の本文。\n");
  drive.WriteFile("/Documents/a+b & c=d.txt", "A name that looks like a query.\n");
  drive.WriteFile("/Documents/Ünïcödé folder/naïve café.txt", "Déjà vu.\n");
}

}  // namespace

void SeedDemoDrives(Drive& user, Drive& colleague) {
  constexpr int kPictures = 450;
  constexpr std::uint64_t kRecordingSize = std::uint64_t{8} << 20U;
  user.WriteFile("/Welcome.txt",
                 "Welcome to your drive.\n\nEverything here lives on this computer and may be "
                 "changed, moved and deleted at will.\n");
  user.WriteFile("/empty.txt", std::string());
  user.MakeFolder("/Empty folder");
  SeedReports(user);
  SeedNames(user);
  user.WriteFile("/Recording.bin", PatternContent(kRecordingSize));
  for (int number = 1; number <= kPictures; ++number) {
    user.WriteFile("/Photos 2026/" + PictureName(number), Picture(number));
  }

  colleague.WriteFile("/Team plans/Roadmap.md", "# Roadmap\n\n1. Collect wishes\n2. Choose\n");
  colleague.WriteFile("/Team plans/Minutes/Kick-off.txt", "Present: Robin, Demo.\n");
  colleague.WriteFile("/Budget.csv", "item,amount\nTravel,1200\nBooks,340\n");
  colleague.WriteFile("/Private/Diary.txt", "Not for others.\n");
  colleague.Share(colleague.MakeFolder("/Team plans"), SharedRole::kWrite);
  colleague.Share(colleague.FindPath("/Budget.csv")->id);
}

}  // namespace emulator
