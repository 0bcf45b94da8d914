// SPDX-License-Identifier: MIT
#pragma once

/// The D-Bus interface by which a person or a script plays with the program.
/// Its description for people is docs/simulator.md.
namespace vexasim::control
{
constexpr const char* kName = "org.vexabluetoohtd.Sim";
constexpr const char* kPath = "/sim";
constexpr const char* kInterface = "org.vexabluetoohtd.Sim";
constexpr const char* kError = "org.vexabluetoohtd.Sim.Error.Failed";

constexpr const char* kXml = R"xml(<node>
 <interface name="org.vexabluetoohtd.Sim">
  <!-- The box around the daemon: --adc-file and the folder of --tmp. -->
  <method name="PressButton"/>
  <method name="ReleaseButton"/>
  <method name="HoldButton"><arg name="milliseconds" type="u" direction="in"/></method>
  <method name="SetFlag"><arg name="flag" type="s" direction="in"/></method>
  <method name="OfferImage"><arg name="file" type="s" direction="in"/></method>

  <!-- The remote in the hand. -->
  <method name="Leave"/>
  <method name="ComeBack"/>
  <method name="Sleep"/>
  <method name="Wake"/>
  <method name="LoseLink"/>
  <method name="SetBattery"><arg name="percent" type="y" direction="in"/></method>
  <method name="SetBatteryBytes"><arg name="bytes" type="ay" direction="in"/></method>
  <method name="SetVersion"><arg name="version" type="q" direction="in"/></method>
  <method name="SetVersionBytes"><arg name="bytes" type="ay" direction="in"/></method>
  <method name="SetRssi"><arg name="dBm" type="n" direction="in"/></method>
  <method name="SetName"><arg name="name" type="s" direction="in"/></method>
  <method name="SetPairing"><arg name="behaviour" type="s" direction="in"/></method>
  <method name="SetSlow"><arg name="milliseconds" type="u" direction="in"/></method>
  <method name="SetMute"><arg name="mute" type="b" direction="in"/></method>
  <method name="SetForgotBond"><arg name="forgot" type="b" direction="in"/></method>
  <method name="Status"><arg name="status" type="a{sv}" direction="out"/></method>

  <!-- Its update. -->
  <method name="EnterUpdateMode"/>
  <method name="LeaveUpdateMode"/>
  <method name="ExpectImage"><arg name="file" type="s" direction="in"/></method>
  <method name="SetUpdateFault">
   <arg name="step" type="s" direction="in"/><arg name="fault" type="a{sv}" direction="in"/>
  </method>
  <method name="ClearUpdateFaults"/>
  <method name="SetUpdateAppearance"><arg name="appearance" type="a{sv}" direction="in"/></method>
  <method name="UpdatePackets"><arg name="packets" type="a(xssay)" direction="out"/></method>

  <!-- Other devices, and the adapters. -->
  <method name="AddDevice">
   <arg name="address" type="s" direction="in"/><arg name="name" type="s" direction="in"/>
  </method>
  <method name="RemoveDevice"><arg name="address" type="s" direction="in"/></method>
  <method name="AddAdapter">
   <arg name="name" type="s" direction="in"/><arg name="address" type="s" direction="in"/>
  </method>
  <method name="RemoveAdapter"><arg name="name" type="s" direction="in"/></method>
  <method name="SetPowered">
   <arg name="adapter" type="s" direction="in"/><arg name="powered" type="b" direction="in"/>
  </method>

  <!-- What only the air shows of the remote. -->
  <method name="SetRadio"><arg name="radio" type="a{sv}" direction="in"/></method>
  <method name="HangUp"/>

  <!-- bluetoothd itself. -->
  <method name="StopService"><arg name="how" type="s" direction="in"/></method>
  <method name="StartService"/>
  <method name="Bend">
   <arg name="member" type="s" direction="in"/><arg name="how" type="a{sv}" direction="in"/>
   <arg name="id" type="t" direction="out"/>
  </method>
  <method name="Unbend"><arg name="id" type="t" direction="in"/></method>
  <method name="ClearBends"/>
  <method name="SetProperty">
   <arg name="object" type="o" direction="in"/><arg name="interface" type="s" direction="in"/>
   <arg name="property" type="s" direction="in"/><arg name="value" type="v" direction="in"/>
   <arg name="emit" type="b" direction="in"/>
  </method>
  <method name="EmitSignal">
   <arg name="object" type="o" direction="in"/><arg name="interface" type="s" direction="in"/>
   <arg name="member" type="s" direction="in"/><arg name="parameters" type="v" direction="in"/>
  </method>
  <method name="AddObject">
   <arg name="object" type="o" direction="in"/><arg name="interfaces" type="a{sa{sv}}" direction="in"/>
  </method>
  <method name="RemoveObject"><arg name="object" type="o" direction="in"/></method>
  <method name="Calls"><arg name="calls" type="a(xsssss)" direction="out"/></method>
  <method name="ClearCalls"/>

  <!-- The program. -->
  <method name="Quit"/>
  <signal name="Happened"><arg name="what" type="s"/></signal>
 </interface>
</node>)xml";
} // namespace vexasim::control
