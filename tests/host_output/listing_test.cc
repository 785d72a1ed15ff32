// The host's own views: one row makes a line of text and a record of the schema, whole or cut.
#include "host/output/listing.h"

#include "host/output/output.h"
#include "tests/host_output/document_check.h"

namespace {

using output::Cell;
using output::Column;
using output::Listing;
using output::Row;
using output::View;

using MakeWriter = std::unique_ptr<output::Writer> (*)(output::ByteSink);

Cell some_cell(const Column &column) {
  if (column.items != nullptr) {
    Row item;
    for (const Column &field : column.items->columns) item.push_back(some_cell(field));
    return std::vector<Row>{item, item};
  }
  switch (column.type) {
    case CLI_TYPE_NUMBER:
      return uint32_t{4000000000};
    case CLI_TYPE_BOOLEAN:
      return true;
    case CLI_TYPE_DURATION:
      return Cell::Seconds(0.25);
    case output::kFactor:
      return 2.5;
    case CLI_TYPE_ADDRESS:
      return "10.0.0.1";
    case CLI_TYPE_SOURCE:
      return "*";
    case output::kTime:
      return "2026-01-31T12:00:00.000Z";
    default:
      return "a <b> & \"c\" \x01\xff";
  }
}

Row full_row(const View &view) {
  Row row;
  for (const Column &column : view.columns) row.push_back(some_cell(column));
  return row;
}

// A row that has what every row has, and nothing else.
Row bare_row(const View &view) {
  Row row(view.columns.size());
  row[view.key] = some_cell(view.columns[view.key]);
  return row;
}

// What a writer makes of a listing when no more bytes are wanted after the n-th delivery.
template <typename List>
std::string written(MakeWriter make, List list, size_t enough_after = SIZE_MAX) {
  std::string bytes;
  size_t deliveries = 0;
  const auto writer = make([&](std::string_view piece) {
    bytes.append(piece);
    return ++deliveries < enough_after;
  });
  Listing listing(*writer);
  list(listing);
  writer->finish();
  return bytes;
}

TEST(Listings, MakeValidDocumentsOfEveryView) {
  for (const View *view : output::kViews)
    for (const bool detail : {false, true}) {
      SCOPED_TRACE(view->record);
      const auto list = [&](Listing &listing) {
        listing.begin(*view, detail);
        for (int i = 0; i < 3; i++) EXPECT_TRUE(listing.row(full_row(*view)) && listing.row(bare_row(*view)));
      };
      const std::string json = written(json_document, list), xml = written(xml_document, list);
      check_json(json);
      EXPECT_EQ(xml_faults(xml), "") << xml;
      const Json rows = Json::parse(json)[view->record];
      ASSERT_EQ(rows.size(), 6u);
      for (const Column &column : view->columns) {
        const bool wanted = detail || !column.only_in_detail;
        EXPECT_EQ(rows[0].contains(column.name), wanted) << column.name;
        EXPECT_EQ(rows[1].contains(column.name), wanted && (&column == &view->columns[view->key] || is_list(column)))
            << column.name;
      }
    }
}

TEST(Listings, MakeEmptyListsOfEmptyTables) {
  const auto list = [](Listing &listing) {
    listing.begin(output::kEvents);
    listing.begin(output::kErrors);
  };
  EXPECT_EQ(body_of(written(json_document, list)), Json::parse(R"({"event": [], "error-report": []})"));
  EXPECT_EQ(xml_faults(written(xml_document, list)), "");
  EXPECT_EQ(written(output::text_writer, list),
            "Time         Event\n\nError reports\nReport                      Arguments\n");
}

TEST(Listings, MakeValidDocumentsWhereverTheyAreCut) {
  size_t rows = 0;
  const auto list = [&rows](Listing &listing) {
    rows = 0;
    for (const View *view : {&output::kBgpSpeaker, &output::kCustomers, &output::kGroups}) {
      listing.begin(*view);
      for (int i = 0; i < 3; i++, rows++)
        if (!listing.row(full_row(*view))) return;
    }
  };
  check_json(written(json_document, list));
  ASSERT_EQ(rows, 9u);
  for (size_t n = 1; n <= 20; n++) {
    SCOPED_TRACE(n);
    check_json(written(json_document, list, n));
    EXPECT_TRUE(n > 8 || rows < 9) << "the listing goes on";
    EXPECT_EQ(xml_faults(written(xml_document, list, n)), "");
  }
}

TEST(Listings, PrintAlignedColumns) {
  const auto list = [](Listing &listing) {
    listing.begin(output::kBgpSpeaker);
    Row speaker(std::size(output::kBgpSpeakerColumns));
    speaker[0] = uint32_t{65000};
    speaker[4] = false;
    listing.row(speaker);
    listing.row(speaker);
    listing.begin(output::kCustomers);
    listing.row({"a-vrf-of-16-chars", "*", "225.1.1.1", "eth0", Cell(), std::vector<Row>{{"eth1"}, {"mvpn"}},
                 uint64_t{500}, false, Cell(), Cell()});
    listing.row({"red", "10.0.0.1", "232.1.1.1", Cell(), "10.0.0.2", std::vector<Row>(), uint64_t{0}, true, uint16_t{2},
                 "239.1.8.0"});
    listing.begin(output::kGroups);
    listing.row(
        {"239.1.1.1", "SSM", size_t{1}, size_t{0}, std::vector<Row>{{"red", uint16_t{1}}, {"blue", uint16_t{2}}}});
  };
  EXPECT_EQ(
      written(output::text_writer, list),
      "Local AS: 65000\n"
      "  Restarting: no\n"
      "\n"
      "Local AS: 65000\n"
      "  Restarting: no\n"
      "\n"
      "VRF         Source           Group            IIF         RPF              OIFs            kbps     Bidir  "
      "Encap  Data group\n"
      "a-vrf-of-16-chars *                225.1.1.1        eth0        -                eth1,mvpn       500      "
      "no     -      -\n"
      "red         10.0.0.1         232.1.1.1        -           10.0.0.2         -               0        yes    "
      "2      239.1.8.0\n"
      "\n"
      "Group            Mode    Local   Remote  Encapsulations (VRF:index)\n"
      "239.1.1.1        SSM     1       0       red:1,blue:2\n");
}

}  // namespace
