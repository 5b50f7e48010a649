#pragma once

#include "views/support/SourceBinding.h"
#include <qqmlintegration.h>

#include "views/calendar/RowListModel.h"

#include "support/Date.h"

#include <QString>

#include <optional>
#include <vector>

namespace tavelo {

class AppStore;

// One tag's line of the report.
struct ReportRow {
    QString id; // the tag's UUID, or "untagged"
    QString name;
    QString colorHex;
    int minutes = 0;
    int previousMinutes = 0;
    // The weekly target scaled to the period; -1 without a target.
    int targetMinutes = -1;
    bool isOverTarget = false;
    bool operator==(const ReportRow&) const = default;
};

// Minutes per tag in the chosen week or month, beside the period before it
// and against the tags' weekly targets.
class ReportModel : public RowListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ store WRITE setStore NOTIFY storeChanged)
    // "week" or "month".
    Q_PROPERTY(QString period READ period WRITE setPeriod NOTIFY periodChanged)
    Q_PROPERTY(QString rangeText READ rangeText NOTIFY summaryChanged)
    Q_PROPERTY(QString previousRangeText READ previousRangeText NOTIFY summaryChanged)
    Q_PROPERTY(int totalMinutes READ totalMinutes NOTIFY summaryChanged)
    Q_PROPERTY(int previousTotalMinutes READ previousTotalMinutes NOTIFY summaryChanged)
    Q_PROPERTY(int focusMinutes READ focusMinutes NOTIFY summaryChanged)
    Q_PROPERTY(QString changeText READ changeText NOTIFY summaryChanged)
    Q_PROPERTY(QString totalText READ totalText NOTIFY summaryChanged)
    Q_PROPERTY(QString previousTotalText READ previousTotalText NOTIFY summaryChanged)
    Q_PROPERTY(QString focusText READ focusText NOTIFY summaryChanged)
    // The largest value a bar of the chart shows, for its scale.
    Q_PROPERTY(int scaleMinutes READ scaleMinutes NOTIFY summaryChanged)

public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        NameRole,
        ColorRole,
        MinutesRole,
        PreviousMinutesRole,
        TargetMinutesRole,
        IsOverTargetRole,
        MinutesTextRole,
        PreviousMinutesTextRole,
        TargetTextRole,
        ProgressTextRole,
    };

    explicit ReportModel(QObject* parent = nullptr);
    ~ReportModel() override;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    QObject* store() const;
    void setStore(QObject* store);
    QString period() const { return period_; }
    void setPeriod(const QString& period);
    QString rangeText() const { return rangeText_; }
    QString previousRangeText() const { return previousRangeText_; }
    int totalMinutes() const { return totalMinutes_; }
    int previousTotalMinutes() const { return previousTotalMinutes_; }
    int focusMinutes() const { return focusMinutes_; }
    QString changeText() const { return changeText_; }
    QString totalText() const { return durationText(totalMinutes_); }
    QString previousTotalText() const { return durationText(previousTotalMinutes_); }
    QString focusText() const { return durationText(focusMinutes_); }
    int scaleMinutes() const { return scaleMinutes_; }
    const std::vector<ReportRow>& rows() const { return rows_; }

    // The day the period holds; today unless set.
    void setReferenceDate(Date date);
    Q_INVOKABLE void movePeriod(int by);
    Q_INVOKABLE void showCurrentPeriod();
    Q_INVOKABLE void rebuild();

    // "2時間30分".
    static QString durationText(int minutes);

signals:
    void storeChanged();
    void periodChanged();
    void summaryChanged();

private:
    SourceBinding<AppStore> store_;
    QString period_ = QStringLiteral("week");
    std::optional<Date> referenceDate_;
    std::vector<ReportRow> rows_;
    QString rangeText_;
    QString previousRangeText_;
    int totalMinutes_ = 0;
    int previousTotalMinutes_ = 0;
    int focusMinutes_ = 0;
    QString changeText_;
    int scaleMinutes_ = 60;
};

} // namespace tavelo
