// Time and bar charts drawn with uPlot: local times on the axis and in the hover legend, one look for every chart.
import uPlot from './vendor/uPlot.esm.js';
import { t } from './texts.js';

const COLOURS = ['#0a4d8c', '#a4161a', '#1e6b2e', '#7a3e9d', '#b35900', '#00707a', '#5c5c5c', '#8c6d00'];
export const colour = (i) => COLOURS[i % COLOURS.length];

const two = (n) => String(n).padStart(2, '0');

// "dd.mm.yyyy hh:mm:ss" in the browser's time zone, from seconds since 1970.
export function localStamp(seconds) {
  const d = new Date(seconds * 1000);
  return `${two(d.getDate())}.${two(d.getMonth() + 1)}.${d.getFullYear()} ${two(d.getHours())}:${two(d.getMinutes())}:${two(d.getSeconds())}`;
}

// "dd.mm.yyyy" of a day's start, from seconds since 1970.
export function localDay(seconds) {
  const d = new Date(seconds * 1000);
  return `${two(d.getDate())}.${two(d.getMonth() + 1)}.${d.getFullYear()}`;
}

function timeTicks(u, splits) {
  const span = (u.scales.x.max ?? 0) - (u.scales.x.min ?? 0);
  return splits.map((s) => {
    const d = new Date(s * 1000);
    return span < 600 ? `${two(d.getHours())}:${two(d.getMinutes())}:${two(d.getSeconds())}` : `${two(d.getHours())}:${two(d.getMinutes())}`;
  });
}

const shownValue = (u, v) => (v == null ? '—' : String(v));

// A flat series gets a band around its value, so that it draws as a line across the chart.
function rangeOf(u, min, max) {
  if (min == null || max == null) return [0, 1];
  if (min === max) {
    const pad = Math.max(1, Math.abs(min) * 0.1);
    return [min - pad, max + pad];
  }
  const pad = (max - min) * 0.1;
  return [min - pad, max + pad];
}

function sizeOf(box, height) {
  return { width: Math.max(260, Math.floor(box.clientWidth || 600)), height };
}

// A line chart of values over time in `box`: series [{label}], data [times, values...].
export function timeChart(box, series, data, height = 170) {
  const chart = new uPlot({
    ...sizeOf(box, height),
    scales: { x: { time: true }, y: { range: rangeOf } },
    series: [
      { label: t('chart.time'), value: (u, v) => (v == null ? '—' : localStamp(v)) },
      ...series.map((s, i) => ({ label: s.label, stroke: colour(i), width: 2, spanGaps: false, value: shownValue,
        points: { show: true, size: 4 } })),
    ],
    axes: [{ values: timeTicks }, { size: 60 }],
    legend: { live: true },
    cursor: { drag: { x: false, y: false } },
  }, data, box);
  follow(box, chart, height);
  return chart;
}

// A bar chart of counts per day: data [day starts in seconds, counts].
export function dayBars(box, label, data, height = 170) {
  const chart = new uPlot({
    ...sizeOf(box, height),
    scales: { x: { time: true }, y: { range: (u, min, max) => [0, Math.max(1, max ?? 1) * 1.1] } },
    series: [
      { label: t('chart.day'), value: (u, v) => (v == null ? '—' : localDay(v)) },
      { label, stroke: colour(0), fill: `${colour(0)}99`, width: 1, value: shownValue,
        paths: uPlot.paths.bars({ size: [0.8, 40] }), points: { show: false } },
    ],
    axes: [{ values: (u, splits) => splits.map(localDay).map((d) => d.slice(0, 5)) }, { size: 50 }],
    legend: { live: true },
    cursor: { drag: { x: false, y: false } },
  }, data, box);
  follow(box, chart, height);
  return chart;
}

// Charts follow their box's width.
function follow(box, chart, height) {
  let width = box.clientWidth;
  chart.observer = new ResizeObserver(() => {
    if (!box.isConnected || box.clientWidth === width || box.clientWidth === 0) return;
    width = box.clientWidth;
    chart.setSize(sizeOf(box, height));
  });
  chart.observer.observe(box);
}

export function dropChart(chart) {
  chart?.observer?.disconnect();
  chart?.destroy();
}
