#ifndef METRICS_METRICS_H
#define METRICS_METRICS_H

/// Everything: the whole public interface in one include.

#include <metrics/MetricsBitsUtils.h>
#include <metrics/MetricsContext.h>
#include <metrics/MetricsError.h>
#include <metrics/MetricsEvent.h>
#include <metrics/MetricsFileClient.h>
#include <metrics/MetricsFileError.h>
#include <metrics/MetricsFilter.h>
#include <metrics/MetricsManager.h>
#include <metrics/MetricsOptions.h>
#include <metrics/MetricsRawClient.h>
#include <metrics/MetricsScope.h>
#include <metrics/MetricsStatistics.h>
#include <metrics/MetricsThreadContext.h>
#include <metrics/MetricsTimer.h>
#include <metrics/MetricsTraceClient.h>
#include <metrics/MetricsVersion.h>

#endif // METRICS_METRICS_H
