// Where the time went: a bar of the five layers, and a legend that says the same in words and numbers.
import { html } from '../html.js';
import { duration, share } from '../format.js';
import { layers } from '../layers.js';

// The times of a request, or of a sum of them, by layer.
export const timesOf = entry => layers.map(({ key, name }) => ({ key, name, us: entry[`${key}_us`] ?? 0 })).filter(({ us }) => us > 0);

const inWords = (times, whole) => times.map(({ name, us }) => `${name} ${share(us, whole)}`).join(', ');

export function LayerBar({ entry }) {
  const times = timesOf(entry);
  const whole = times.reduce((sum, { us }) => sum + us, 0);
  if (!whole) return html`<span class="layerbar" role="img" aria-label="no time recorded"></span>`;
  return html`<span class="layerbar" role="img" aria-label=${inWords(times, whole)} title=${inWords(times, whole)}>
    ${times.map(({ key, us }) => html`<i key=${key} class=${`layer-${key}`} style=${{ width: `${100 * us / whole}%` }}></i>`)}
  </span>`;
}

export function LayerLegend({ entry }) {
  const times = timesOf(entry);
  const whole = times.reduce((sum, { us }) => sum + us, 0);
  return html`<ul class="legend">
    ${times.map(({ key, name, us }) => html`<li key=${key}><i class=${`swatch layer-${key}`}></i>${name} <b>${duration(us)}</b> <span class="dim">${share(us, whole)}</span></li>`)}
  </ul>`;
}
