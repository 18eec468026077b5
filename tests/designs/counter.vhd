-- A small clocked design whose GHDL waveform is a VCD fixture of the tests
-- (tests/designs/simulate.sh). A counter with an enable and a tri-state output, a state machine
-- (an enumeration; GHDL's VCD leaves enumerations out, so its position is shown as an integer
-- too), an integer, a real, a boolean, a bit vector of ascending range, 'U' before the reset,
-- 'X' from two fighting drivers, 'Z' from the tri-state bus, and the weak values 'W', 'L', 'H'
-- and '-'.
library ieee;
use ieee.std_logic_1164.all;
use ieee.numeric_std.all;

entity counter is
  port (
    clk   : in  std_logic;
    rst   : in  std_logic;
    en    : in  std_logic;
    count : out std_logic_vector(7 downto 0);
    low_z : out std_logic_vector(3 downto 0));  -- the low nibble while enabled, else 'Z'
end entity;

architecture rtl of counter is
  signal value : unsigned(7 downto 0);
begin
  process (clk) begin
    if rising_edge(clk) then
      if rst = '1' then
        value <= (others => '0');
      elsif en = '1' then
        value <= value + 1;
      end if;
    end if;
  end process;
  count <= std_logic_vector(value);
  low_z <= std_logic_vector(value(3 downto 0)) when en = '1' else (others => 'Z');
end architecture;

library ieee;
use ieee.std_logic_1164.all;

entity tb is
end entity;

architecture sim of tb is
  type state_t is (IDLE, COUNTING, WRAP, HALT);
  signal state      : state_t := IDLE;
  signal state_code : integer := 0;
  signal clk        : std_logic := '0';
  signal rst        : std_logic;             -- 'U' until the reset is applied
  signal en         : std_logic := '0';
  signal count      : std_logic_vector(7 downto 0);
  signal low_z      : std_logic_vector(3 downto 0);
  signal fight      : std_logic;             -- two drivers: 'X' while they disagree
  signal weak       : std_logic_vector(0 to 3) := "WLH-";
  signal cycles     : integer := 0;
  signal delta      : integer := -3;
  signal level      : real := 0.1;
  signal wrapped    : boolean := false;
  signal pattern    : bit_vector(0 to 3) := "0001";
  signal done       : boolean := false;
begin
  dut : entity work.counter port map (clk => clk, rst => rst, en => en, count => count, low_z => low_z);

  clk <= not clk after 5 ns when not done;
  fight <= '0';
  fight <= '1' when cycles mod 8 >= 4 else '0';

  process (clk) begin
    if rising_edge(clk) then
      cycles <= cycles + 1;
      delta <= (delta * 3 + 1) mod 1000003 - 500000;
      level <= level * 1.37 - 0.0625;
      pattern <= pattern(3) & pattern(0 to 2);
      weak <= weak(3) & weak(0 to 2);
      wrapped <= count = x"FF";
      if rst = '1' then
        state <= IDLE;
      else
        case state is
          when IDLE => state <= COUNTING;
          when COUNTING => if count = x"FE" then state <= WRAP; end if;
          when WRAP => state <= HALT;
          when HALT => state <= COUNTING;
        end case;
      end if;
    end if;
  end process;
  state_code <= state_t'pos(state);

  process begin
    wait for 12 ns;
    rst <= '1';
    wait for 20 ns;
    rst <= '0';
    wait for 10 ns;
    en <= '1';
    wait for 2600 ns;
    en <= '0';
    wait for 40 ns;
    en <= '1';
    wait for 100 ns;
    done <= true;
    wait;
  end process;
end architecture;
