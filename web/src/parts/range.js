// The choice of a range of time; it is part of the address. Views of sums begin with one that is the same for all.
import { html } from '../html.js';
import { fullTime } from '../format.js';
import { address, go } from '../router.js';

const spans = [['15m', '15 minutes'], ['1h', '1 hour'], ['6h', '6 hours'], ['24h', '24 hours'], ['3d', '3 days'], ['30d', '30 days'], ['90d', '90 days'], ['', 'All']];

let first = '1h';
export const beginWith = span => { first = span; };

// What is asked for by an address: the parameters of the API.
export const rangeOf = ({ since, from, until }) => (from || until ? { from, until } : { since: since ?? first });

export const SumRange = props => html`<${Range} ...${props} otherwise=${first} />`;

export function Range({ path, parameters, otherwise = '' }) {
  const { since, from, until, ...rest } = parameters;
  const chosen = from || until ? 'between' : since ?? otherwise;
  const choose = event => go(address(path, { ...rest, since: event.target.value === otherwise ? '' : event.target.value }));
  return html`<label class="range">Range
    <select value=${chosen} onChange=${choose}>
      ${chosen === 'between' && html`<option value="between">${from ? fullTime(Number(from)) : '…'} to ${until ? fullTime(Number(until)) : 'now'}</option>`}
      ${spans.filter(([value]) => value || !otherwise).map(([value, name]) => html`<option key=${value} value=${value}>${name}</option>`)}
    </select></label>`;
}
