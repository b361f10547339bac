// The map as a drawing: nested rectangles with texts, for pointer and keyboard.

function tileName(node) {
  if (node.folded) return 'other (' + countText(node.folded) + ')';
  return node.own ? 'own files' : nameText(node.account);
}

function tileClass(node, view) {
  if (node.folded) return 'folded';
  if (view.colour === 'kind') return 'kind' + shownKind(node, view);
  if (view.colour === 'state') return 'state' + node.account.state;
  return node.own ? 'none' : bandOf(percentOf(node.account, view.kind)).name;
}

function shownKind(node, view) {
  return view.kind === ALL_KINDS ? largestKind(node.account) : view.kind;
}

// The text that says what the colour says.
function tileMark(node, view) {
  if (node.folded) return '';
  if (view.colour === 'kind') return report.labels[shownKind(node, view)];
  if (view.colour === 'state') return stateLabel(node.account.state, null);
  const percent = node.own ? null : percentOf(node.account, view.kind);
  return percent === null ? '' : percentLabel(percent);
}

function tileFigure(node, view) {
  const { account, own, folded } = node.data;
  const atLeast = !own && !folded && isAtLeast(account, view.kind);
  return (atLeast ? '\u2265\u00a0' : '') + bytesText(node.value);
}

// Lines of a tile, as far as there is room.
function tileLines(node, view, width, height) {
  const name = tileName(node.data);
  const figure = tileFigure(node, view);
  const mark = tileMark(node.data, view);
  if (node.children) return height < 16 ? [] : [name + '   ' + figure + (mark ? '   ' + mark : '')];
  if (width < 34 || height < 16) return [];
  if (height < 32) return [name];
  return height < 46 || !mark ? [name, mark || figure] : [name, mark, figure];
}

// Stripes over what is over its limit: to be seen without colours, and on the smallest tile.
function stripes() {
  return drawn('defs', null, drawn('pattern', {
    id: 'stripes', width: 7, height: 7, patternUnits: 'userSpaceOnUse', patternTransform: 'rotate(45)',
  }, drawn('rect', { width: 2, height: 7, class: 'stripe' })));
}

class Treemap {
  // `actions`: open(account), up(), select(account), preview(account or null), showTable().
  constructor(place, view, actions) {
    this.place = place;
    this.view = view;
    this.actions = actions;
    place.addEventListener('click', (event) => this.enter(this.indexOf(event)));
    place.addEventListener('pointerover', (event) => this.preview(this.indexOf(event)));
    place.addEventListener('pointerleave', () => actions.preview(null));
    place.addEventListener('keydown', (event) => this.key(event));
  }

  indexOf(event) {
    const tile = event.target.closest('[data-tile]');
    return tile === null ? -1 : Number(tile.dataset.tile);
  }

  draw() {
    const hadFocus = this.place.contains(document.activeElement);
    const width = Math.max(320, this.place.clientWidth);
    const height = Math.round(Math.max(300, Math.min(width * 0.62, window.innerHeight * 0.6)));
    this.nodes = layOut(this.view.root, this.view.kind, width, height);
    this.active = -1;
    this.tiles = this.nodes.map((node, index) => this.tile(node, index));
    this.svg = drawn('svg', {
      viewBox: '0 0 ' + width + ' ' + height,
      role: 'listbox',
      tabindex: 0,
      'aria-label': 'Accounts in ' + this.view.root.label,
      focus: () => { if (this.active < 0) this.activate(0); },
    }, stripes(), ...this.tiles);
    if (this.nodes.length === 0) {
      this.svg.append(drawn('text', { x: 20, y: 40, class: 'empty' }, 'Nothing is stored here'));
    }
    this.place.replaceChildren(this.svg);
    if (hadFocus) this.svg.focus({ preventScroll: true });
  }

  tile(node, index) {
    const width = node.x1 - node.x0;
    const height = node.y1 - node.y0;
    const style = tileClass(node.data, this.view);
    const mark = tileMark(node.data, this.view);
    const tile = drawn('g', {
      id: 'tile' + index,
      'data-tile': index,
      class: 'tile ' + style + (node.children ? ' group' : ''),
      transform: 'translate(' + node.x0 + ' ' + node.y0 + ')',
      role: 'option',
      'aria-label': tileName(node.data) + ', ' + tileFigure(node, this.view) + (mark ? ', ' + mark : ''),
    }, drawn('rect', { width, height, rx: 2 }));
    if (style === 'over') tile.append(drawn('rect', { width, height, class: 'striped' }));
    const lines = tileLines(node, this.view, width, height);
    if (lines.length > 0) tile.append(this.text(lines, width, height));
    return tile;
  }

  // An inner drawing cuts off what does not fit.
  text(lines, width, height) {
    return drawn('svg', { width: Math.max(0, width - 4), height }, ...lines.map((line, index) =>
      drawn('text', { x: 5, y: 14 + 14 * index, class: index === 0 ? 'name' : 'figure' }, line)));
  }

  activate(index) {
    if (index < 0 || index >= this.nodes.length) return;
    if (this.active >= 0) this.mark(this.active, false);
    this.active = index;
    this.mark(index, true);
    this.svg.setAttribute('aria-activedescendant', 'tile' + index);
    this.preview(index);
  }

  mark(index, on) {
    this.tiles[index].classList.toggle('active', on);
    this.tiles[index].setAttribute('aria-selected', String(on));
  }

  preview(index) {
    if (index >= 0) this.actions.preview(this.nodes[index].data.account);
  }

  enter(index) {
    if (index < 0) return;
    const { account, folded } = this.nodes[index].data;
    this.activate(index);
    if (account.children.length > 0 && account !== this.view.root) this.actions.open(account);
    else if (folded) this.actions.showTable();
    else this.actions.select(account);
  }

  key(event) {
    const steps = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };
    if (event.key in steps) this.step(steps[event.key]);
    else if (event.key === 'Enter' || event.key === ' ') this.enter(this.active);
    else if (event.key === 'Escape' || event.key === 'Backspace') this.actions.up();
    else if (event.key === 'Home') this.activate(0);
    else if (event.key === 'End') this.activate(this.nodes.length - 1);
    else return;
    event.preventDefault();
  }

  step([right, down]) {
    this.activate(this.active < 0 ? 0 : neighbourOf(this.nodes, this.active, right, down));
  }
}
