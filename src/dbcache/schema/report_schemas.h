// Reports: what is to be reported, when and to whom, and what the reporting sibling has made of it.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// Report, ReportOrder, ReportSelection, ReportCheckSelection, ReportSendTo, ReportInstance,
/// ReportResult, the sections of a report, and the texts of reports and domains.
void declare_reports(SchemaTable& table);

}  // namespace dbcache::schema
